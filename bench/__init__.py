"""Speed of the operators compared with what one would use instead: `python -m bench`."""
