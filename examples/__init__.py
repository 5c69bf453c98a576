"""Layers that the runner's models do not have, in plain PyTorch over the operators."""
