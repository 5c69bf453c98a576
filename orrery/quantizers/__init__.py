"""Encoders and decoders of the weight formats, vectorised over blocks.

`encode_*` takes float32 [blocks, elements] and gives one byte tensor [blocks, bytes] for each plane of the format;
`decode_*` takes these planes and gives the values that the kernels read.
"""
