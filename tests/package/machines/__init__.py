"""Machines of the tests' own: a bare Debian, and systemd-nspawn to boot it."""
