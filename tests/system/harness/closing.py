"""Things that end with the `with` block in which they were made."""

from typing import Self


class Closing:
    """Closes itself at the end of the block."""

    def close(self) -> None:
        """End it; what has ended may be closed again."""
        raise NotImplementedError

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_exception) -> None:
        self.close()
