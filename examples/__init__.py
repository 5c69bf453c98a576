"""Layers that the runner's models do not have, and LoRA, in plain PyTorch over the operators."""
