"""The pieces that system tests are written with: a station, its consoles and its users."""
