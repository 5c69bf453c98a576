"""Operators for language models with low-bit weights on PyTorch's `xpu` device: 29 flat functions.

All tensors are on one `xpu` device unless an argument says otherwise. Arguments are positional, but for those of
`forward_qkv`. Sizes are in elements and positions count from 0. A weight is a one-dimensional tensor of its bytes, and
its format is named by a code (`qtype`). Results are new tensors unless a function returns `None`.

Preconditions on sizes are assertions: a call that breaks one ends the process and prints the expression. Others are not
checked at all. docs/functions.md lists both.
"""

from torch import Tensor

def forward_new(input: Tensor, weight: Tensor, qtype: int, seq_hint: int, /) -> Tensor:
    """Linear layer: input times the transposed weight, whatever its format and however many rows.

    Args:
        input: [rows, columns], contiguous; float16, float32, float64 or bfloat16. The columns are a multiple of the
            format's block, 64 or 256.
        weight: bytes of `outputs` rows of `columns` elements, contiguous.
        qtype: code of the weight's format.
        seq_hint: length of the prompt in tokens. From 129 on, large q4_0 weights may be dequantized band by band.

    Returns:
        [rows, outputs] of the input's type on the weight's device. The number of outputs follows from the bytes.

    Raises:
        RuntimeError: a tensor that is not on the device or not contiguous, a code or a type without a kernel, no
            columns; in most formats columns that are no multiple of 16 (8 bits: of 8; iq2_xxs, q2_k, iq1_s: of 256).
        ValueError, IndexError: a malformed number in TILE_THRESHOLD, TILE_SIZE or KELPIE_LLM_LOW_MEM.
    """

def forward_qkv(
    input: Tensor,
    weight_q: Tensor,
    weight_k: Tensor,
    weight_v: Tensor,
    position_ids: Tensor,
    cache_k: Tensor,
    cache_v: Tensor,
    src_0_qtype: int,
    src_0_vtype: int,
    kv_seq_len: int,
    head_size: int,
    rope_base: float = 10000.0,
) -> list[Tensor]:
    """Query, key and value projections of one row, rotary embedding of query and key, and the caches' next row.

    Args:
        input: [1, columns], contiguous; float16, float32, float64 or bfloat16.
        weight_q: bytes of the query's rows, contiguous; q4_0, fp4, fp8_e5m2, fp6 or iq2_xxs.
        weight_k: bytes of the key's rows, in the same format.
        weight_v: bytes of the value's rows, in the same format; q2_k where that is iq2_xxs.
        position_ids: int64; only the first element is read.
        cache_k: [1, key heads, length, head size] of the input's type. The storage has room for one more row per head.
        cache_v: the same for values.
        src_0_qtype: code of the format of query and key.
        src_0_vtype: code by which the value's rows are counted.
        kv_seq_len: row of the caches that is written.
        head_size: elements per head, 2 or more.
        rope_base: base of the rotary frequencies.

    Returns:
        The query [1, heads, 1, head size], and both caches, longer by one row, as views of their storage. Key and value
        are written into row `kv_seq_len`.

    Raises:
        RuntimeError: a tensor that is not on the device or not contiguous, a format or a type without a kernel, columns
            that are no multiple of 16 (fp8_e5m2: of 8; iq2_xxs: of 256), a cache that has not 4 dimensions or is of
            another type, a head size below 2.
    """

def forward_qkv_bias(
    input: Tensor,
    weight_q: Tensor,
    weight_k: Tensor,
    weight_v: Tensor,
    bias_q: Tensor,
    bias_k: Tensor,
    bias_v: Tensor,
    position_ids: Tensor,
    cache_k: Tensor,
    cache_v: Tensor,
    src_0_qtype: int,
    src_0_vtype: int,
    kv_seq_len: int,
    head_size: int,
    rope_base: float,
    /,
) -> list[Tensor]:
    """`forward_qkv` with biases, which are added before the rotary embedding.

    Args:
        input: as in `forward_qkv`.
        weight_q: as in `forward_qkv`.
        weight_k: as in `forward_qkv`.
        weight_v: as in `forward_qkv`.
        bias_q: [query rows], contiguous, of the input's type. iq2_xxs takes none: its biases are dropped.
        bias_k: [key rows], the same.
        bias_v: [value rows], the same.
        position_ids: as in `forward_qkv`.
        cache_k: as in `forward_qkv`.
        cache_v: as in `forward_qkv`.
        src_0_qtype: as in `forward_qkv`.
        src_0_vtype: as in `forward_qkv`.
        kv_seq_len: as in `forward_qkv`.
        head_size: as in `forward_qkv`.
        rope_base: as in `forward_qkv`, without a default.

    Returns:
        As `forward_qkv`.

    Raises:
        RuntimeError: as `forward_qkv`, and for a bias of another type.
    """

def forward_qk(
    input: Tensor,
    weight_q: Tensor,
    weight_k: Tensor,
    position_ids: Tensor,
    cache_k: Tensor,
    src_0_qtype: int,
    kv_seq_len: int,
    head_size: int,
    rope_base: float,
    /,
) -> list[Tensor]:
    """Query and key projections of one row in iq2_xxs, with rotary embedding and the key cache's next row.

    Args:
        input: [1, columns], contiguous; float16, float32, float64 or bfloat16; the columns are a multiple of 256.
        weight_q: bytes of the query's rows, contiguous.
        weight_k: bytes of the key's rows, contiguous.
        position_ids: int64; only the first element is read.
        cache_k: [1, key heads, length, head size] of the input's type, with room for one more row per head.
        src_0_qtype: 21, the code of iq2_xxs.
        kv_seq_len: row of the cache that is written.
        head_size: elements per head, 2 or more.
        rope_base: base of the rotary frequencies.

    Returns:
        The query [1, heads, 1, head size], and the cache, longer by one row, as a view of its storage.

    Raises:
        RuntimeError: as `forward_qkv`; all formats but iq2_xxs have no kernel.
    """

def dequant(input: Tensor, weight: Tensor, qtype: int, /) -> Tensor:
    """The dense matrix of a quantized weight.

    Args:
        input: two dimensions, contiguous; only its type and its number of columns are used.
        weight: bytes of rows of as many columns, contiguous; q4_0, q4_1, q8_0, nf4, fp8_e4m3, fp4, fp8_e5m2 or iq2_xxs.
        qtype: code of the weight's format.

    Returns:
        [weight rows, columns] of the input's type. Without values for all other formats.

    Raises:
        RuntimeError: a tensor that is not on the device or not contiguous, a code that is no format, a type other than
            float16, float32, float64 and bfloat16, columns that are no multiple of 64.
    """

def apply_rotary_embedding_half_q_and_k(
    query: Tensor, key: Tensor, position_ids: Tensor, query_out: Tensor, key_out: Tensor, base: float, /
) -> None:
    """Rotary embedding of query and key into other tensors. Element i of a head is paired with i + half its size.

    Args:
        query: [batch, heads, positions, head size] of any strides; float16, float32, float64 or bfloat16.
        key: the same with heads of its own, of the same type.
        position_ids: [batch, positions], int64, of any strides.
        query_out: written; of the query's shape and type, of any strides. It may be the query.
        key_out: written; of the key's shape and type. It may be the key.
        base: base of the frequencies.

    Raises:
        RuntimeError: tensors of other dimensions, an odd head size, another type.
    """

def apply_rotary_embedding_half_q_or_k(
    input: Tensor, position_ids: Tensor, output: Tensor, backward: bool, /
) -> None:
    """Rotary embedding of one tensor into another, with base 10000, or its inverse.

    Args:
        input: [batch, heads, positions, head size] of any strides; float16, float32, float64 or bfloat16.
        position_ids: [batch, positions], int64, of any strides.
        output: written; of the input's shape and type. It may be the input.
        backward: the inverse rotation.

    Raises:
        RuntimeError: tensors of other dimensions, an odd head size, another type.
    """

def apply_rotary_embedding_half_q_and_k_cache_freq(
    query: Tensor, key: Tensor, sin: Tensor, cos: Tensor, query_out: Tensor, key_out: Tensor, /
) -> None:
    """Rotary embedding of query and key with given sines and cosines.

    Args:
        query: [..., head size] of any strides; float16, float32, float64 or bfloat16.
        key: the same with heads of its own, of the same type.
        sin: sines, of a shape that expands to query and key, of their type. Of each row the first half is read.
        cos: cosines, the same.
        query_out: written; of the query's shape and type. It may be the query.
        key_out: written; of the key's shape and type. It may be the key.

    Raises:
        RuntimeError: tensors of different numbers of dimensions or head sizes, an odd head size, another type.
    """

def bmm(A: Tensor, B: Tensor, C: Tensor, /) -> Tensor:
    """Batched matrix product into a given tensor, on the current device's stream.

    Args:
        A: [batch, M, K], float32, contiguous.
        B: [batch, K, N], float32, contiguous.
        C: [batch, M, N], float32, contiguous; written.

    Returns:
        C.

    Raises:
        RuntimeError: a tensor that is not on the device or not contiguous, another type, A and B that do not fit.
    """

def fused_rms_norm(
    input: Tensor,
    normalized_shape: tuple[int, ...] | list[int],
    weight: Tensor | None,
    bias: Tensor | None,
    eps: float,
    /,
) -> Tensor:
    """The trailing dimensions divided by the root of their mean square, times weight, plus bias.

    Args:
        input: any shape; float16, float32, float64 or bfloat16.
        normalized_shape: only its length counts: that many trailing dimensions are one row.
        weight: as many elements as a row has, of the input's type.
        bias: the same.
        eps: added to the mean square; rounded to float32, and to the input's type where that is narrower.

    Returns:
        Of the input's shape and type. For rows longer than 16 (float16, bfloat16), 8 (float32) or 4 (float64) elements
        per work-item of the largest work-group: an empty float32 tensor of shape [0] on the CPU.

    Raises:
        RuntimeError: another type.
    """

def fused_layer_norm(
    input: Tensor,
    normalized_shape: tuple[int, ...] | list[int],
    weight: Tensor | None,
    bias: Tensor | None,
    eps: float,
    /,
) -> Tensor:
    """The trailing dimensions less their mean, divided by their standard deviation, times weight, plus bias.

    Args:
        input: any shape; float16, float32, float64 or bfloat16.
        normalized_shape: only its length counts: that many trailing dimensions are one row, of 17 elements or more.
        weight: as many elements as a row has, of the input's type.
        bias: the same.
        eps: added to the variance; rounded to float32, and to the input's type where that is narrower.

    Returns:
        As `fused_rms_norm`.

    Raises:
        RuntimeError: another type.
    """

def mlp_forward_xpu(
    input: Tensor,
    weight_gate: Tensor,
    weight_up: Tensor,
    batch_size: int,
    state_size: int,
    output_size: int,
    act_type: int,
    qtype: int,
    /,
) -> Tensor:
    """Gated layer of one row: act(gate(input)) * up(input).

    Args:
        input: [1, columns], contiguous; float16, float32, float64 or bfloat16.
        weight_gate: bytes of `output_size` rows of `state_size` elements.
        weight_up: the same.
        batch_size: 1.
        state_size: columns.
        output_size: outputs; a multiple of 2, on device class 5 of 8 for q4_0 and fp6; any number for iq2_xxs.
        act_type: 0 for SiLU, any other for GELU in its tanh form.
        qtype: code of both weights' format: q4_0, fp4, fp8_e5m2, fp6, and iq2_xxs on device classes 0 and 5.

    Returns:
        [1, output_size] of the input's type on the gate's device.

    Raises:
        RuntimeError: a format or a type without a kernel, columns that are no multiple of 16 (fp8_e5m2: of 8; iq2_xxs:
            of 256).
    """

def quantize_key_value(key: Tensor, value: Tensor, key_output: Tensor, value_output: Tensor, /) -> None:
    """Keys and values to one byte per element: a sign and a 7-bit code. Numbers out of range are clamped.

    Args:
        key: [batch, heads, length, head size], unit stride in a row; float16 or float32; the head size 64, 96 or 128.
        value: of the key's shape and type.
        key_output: written; uint8, of the key's shape. Magnitudes from 0.0021 to 124.
        value_output: written; uint8, of the key's shape. Magnitudes from 0.00026 to 15.5.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def dequantize_key_value(key: Tensor, value: Tensor, key_output: Tensor, value_output: Tensor, /) -> None:
    """One-byte keys and values back to numbers.

    Args:
        key: [batch, heads, length, head size], uint8, unit stride in a row; the head size 64, 96 or 128.
        value: the same.
        key_output: written; of the key's shape, float16 or float32.
        value_output: written; the same.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def query_key_fp8_matmul(query: Tensor, key: Tensor, /) -> Tensor:
    """Dot products of one query row with one-byte keys, without a scale. Computed in float16.

    Args:
        query: [batch, heads, 1, head size], unit stride in a row; float16 or float32; the head size 64, 96 or 128.
        key: [batch, key heads, length, head size], uint8, rows packed.

    Returns:
        [batch, heads, 1, length] of the query's type.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def attn_value_fp8_matmul(attn: Tensor, value: Tensor, /) -> Tensor:
    """One-byte values, weighted and summed. Computed in float16; the weights are not normalized.

    Args:
        attn: [batch, heads, 1, length], unit stride in a row; float16 or float32.
        value: [batch, value heads, length, head size], uint8, rows packed; the head size 64, 96 or 128.

    Returns:
        [batch, heads, 1, head size] of the weights' type.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def batch_forward(
    input: Tensor,
    weight: Tensor,
    n: int,
    state_size: int,
    output_size: int,
    qtype: int,
    device_class: int,
    /,
) -> Tensor:
    """Linear layer over up to 64 rows by the explicit-SIMD kernels. Computed in float16.

    Args:
        input: [n, state_size], packed; float16 or float32.
        weight: bytes of `output_size` rows of `state_size` elements; q4_0, q4_1, q8_0, fp4, fp8_e5m2 or fp6.
        n: input rows, 1 to 64.
        state_size: columns, a multiple of 256.
        output_size: weight rows, a multiple of 32.
        qtype: code of the weight's format.
        device_class: kind of device, 0 to 5, by which the kernel is chosen.

    Returns:
        [n, output_size] of the input's type and device.

    Raises:
        RuntimeError: a code or a type without a kernel, no rows on device class 4.
    """

def sdp(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, /) -> Tensor:
    """Attention: softmax(query key^T / sqrt(head size) + mask) value, without a running maximum.

    Args:
        query: [batch, heads, rows, head size], unit stride in a row; float16 or float32; the head size 64, 96 or 128.
        key: [batch, key heads, length, head size], rows packed, of the query's type. The heads are a multiple of the
            key heads.
        value: as the key.
        mask: [batch, heads or 1, rows, length], unit stride in a row; float16 or float32. It is added.

    Returns:
        [batch, heads, rows, head size] of the query's type.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def sdp_fp8(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, /) -> Tensor:
    """`sdp` over keys and values of one byte per element. The products with keys are computed in float16.

    Args:
        query: [batch, heads, rows, head size], unit stride in a row; float16 or float32; the head size 64, 96 or 128.
        key: [batch, key heads, length, head size], uint8 as `quantize_key_value` writes it, rows packed.
        value: as the key.
        mask: [batch, heads or 1, rows, length], unit stride in a row; float16 or float32. It is added.

    Returns:
        [batch, heads, rows, head size] of the query's type.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def sdp_causal(query: Tensor, key: Tensor, value: Tensor, /) -> Tensor:
    """Causal attention: row i attends to the keys 0 to i.

    Args:
        query: [batch, heads, rows, head size], unit stride in a row; float16 or float32; the head size 64, 96 or 128.
        key: [batch, key heads, rows, head size], rows packed, of the query's type. The heads are a multiple of the key
            heads.
        value: as the key.

    Returns:
        [batch, heads, rows, head size] of the query's type.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def sdp_fp8_causal(query: Tensor, key: Tensor, value: Tensor, /) -> Tensor:
    """`sdp_causal` over keys and values of one byte per element. Computed in the query's type.

    Args:
        query: [batch, heads, rows, head size], unit stride in a row; float16 or float32; the head size 64, 96 or 128.
        key: [batch, key heads, rows, head size], uint8 as `quantize_key_value` writes it, rows packed.
        value: as the key.

    Returns:
        [batch, heads, rows, head size] of the query's type.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def rms_norm(weight: Tensor, input: Tensor, eps: float, /) -> Tensor:
    """Rows divided by the root of their mean square, times weight.

    Args:
        weight: [columns], of the input's type.
        input: [rows, columns], packed; float16, float32 or bfloat16, which is computed in the range of float16. The
            columns are a multiple of 32 and at most 8192.
        eps: added to the mean square.

    Returns:
        [rows, columns] of the input's type.

    Raises:
        RuntimeError: another type.
    """

def rotary_half_inplaced(inv_freq: Tensor, position_ids: Tensor, query: Tensor, key: Tensor, /) -> None:
    """Rotary embedding of query and key in place. Element i of a head is paired with i + half its size.

    Args:
        inv_freq: half a head's frequencies in radians per position, contiguous, of the query's type.
        position_ids: [batch, positions], int64, contiguous.
        query: [batch, heads, positions, head size], unit stride in a row; written; float16 or float32; the head size
            64, 96 or 128.
        key: the same with heads of its own, of the same type; written.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def rotary_two_inplaced(inv_freq: Tensor, position_ids: Tensor, query: Tensor, key: Tensor, /) -> None:
    """Rotary embedding of query and key in place. Element 2 i of a head is paired with 2 i + 1.

    Args:
        inv_freq: half a head's frequencies in radians per position, contiguous, of the query's type.
        position_ids: [batch, positions], int64, contiguous.
        query: [batch, heads, positions, head size], unit stride in a row; written; float16 or float32; the head size
            64, 96 or 128.
        key: the same with heads of its own, of the same type; written.

    Raises:
        RuntimeError: another type or head size, fewer than 4 dimensions.
    """

def rwkv_linear_attention_v4(
    time_decay: Tensor,
    time_first: Tensor,
    key: Tensor,
    value: Tensor,
    num_state: Tensor,
    den_state: Tensor,
    max_state: Tensor,
    /,
) -> Tensor:
    """The recurrence of RWKV version 4. It starts from the state and updates it.

    Args:
        time_decay: [channels], added to the maximum at each step, so usually negative; of the key's type.
        time_first: [channels], of the key's type.
        key: [batch, steps, channels], packed; float16 or float32; the channels are a multiple of 32.
        value: as the key.
        num_state: [batch, channels], float32, packed; updated.
        den_state: the same.
        max_state: the same.

    Returns:
        [batch, steps, channels] of the key's type.

    Raises:
        RuntimeError: another type.
    """

def rwkv_linear_attention_v5(
    time_decay: Tensor, time_first: Tensor, receptance: Tensor, key: Tensor, value: Tensor, state: Tensor, /
) -> Tensor:
    """The recurrence of RWKV version 5. It starts from the state and updates it. All tensors are float32.

    Args:
        time_decay: [heads, 64], contiguous.
        time_first: [heads, 64], contiguous.
        receptance: [batch, heads, steps, 64], with the key's strides.
        key: [batch, heads, steps, 64], unit stride in a row.
        value: [batch, heads, steps, 64], with the key's strides.
        state: [batch, heads, 64, 64], contiguous; updated.

    Returns:
        [batch, steps, heads, 64]: steps and heads are transposed.

    Raises:
        RuntimeError: another type.
    """

def rwkv_time_shift(hidden: Tensor, shifted: Tensor, mix: Tensor, /) -> Tensor:
    """For each mix vector, shifted + mix * (hidden - shifted).

    Args:
        hidden: [batch, steps, channels], contiguous; float16 or float32; the channels are a multiple of 64.
        shifted: as hidden.
        mix: [vectors, 1, channels], contiguous, of the same type.

    Returns:
        [vectors, batch, steps, channels] of the same type.

    Raises:
        RuntimeError: another type.
    """

def dequantize_rows(input: Tensor, weight: Tensor, qtype: int, row_size: int, /) -> Tensor:
    """Chosen rows of a quantized weight, as of a token embedding.

    Args:
        input: [tokens, choices], int64 indexes of weight rows, contiguous.
        weight: bytes of rows of `row_size` elements, contiguous; q2_k or q4_k.
        qtype: 23 for q2_k, 27 for q4_k.
        row_size: elements per row, a multiple of 256.

    Returns:
        [tokens, choices, row_size], float32. Without values for all other formats.

    Raises:
        RuntimeError: a tensor that is not on the device or not contiguous, another type of the indexes, a row size
            that is no multiple of 64.
    """

def get_moe_indexes(selected_experts: Tensor, num_experts: int, /) -> list[list[list[int]]]:
    """Which tokens go to which expert. Runs on the host, without a kernel.

    Args:
        selected_experts: [tokens, top k], int32, contiguous, on the CPU; numbers from 0 to `num_experts` - 1.
        num_experts: how many experts there are.

    Returns:
        Two lists, each with a list per expert: its positions among the tokens' choices, and those tokens, in order.

    Raises:
        RuntimeError: another type.
        ValueError: a negative number of experts.
    """
