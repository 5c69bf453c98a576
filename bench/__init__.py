"""Speed of the operators, side by side with what a user would pick instead: `python -m bench`."""
