"""Backward passes, optimizers and torch.accelerator: the device is PyTorch's accelerator where there is no CUDA GPU."""

import copy
import subprocess

import orrery_host  # noqa: F401
import pytest
import torch
from device_process import check_python, run_python
from torch import nn
from torch.nn import functional as F

BATCH = torch.randn(6, 5, 16, generator=torch.Generator().manual_seed(3))


class Attention(nn.Module):
    """Causal attention as its users call it, on three projections."""

    def __init__(self):
        super().__init__()
        self.project = nn.Linear(16, 48)

    def forward(self, x):
        q, k, v = self.project(x).unflatten(-1, (3, 4, 4)).permute(2, 0, 3, 1, 4)
        return F.scaled_dot_product_attention(q, k, v, is_causal=True)


class Recurrent(nn.Module):
    def __init__(self, kind):
        super().__init__()
        self.inner = kind(16, 7, num_layers=2, batch_first=True, bidirectional=True)

    def forward(self, x):
        return self.inner(x)[0]


class Cell(nn.Module):
    def __init__(self, kind):
        super().__init__()
        self.inner = kind(16, 7)

    def forward(self, x):
        state = self.inner(x[0])
        return state[0] if isinstance(state, tuple) else state


MODELS = {
    "perceptron": lambda: nn.Sequential(nn.Linear(16, 9), nn.GELU(), nn.LayerNorm(9), nn.Linear(9, 3)),
    "attention": Attention,
    "multi-head attention": lambda: nn.TransformerEncoderLayer(16, 4, 32, dropout=0, batch_first=True),
    "convolution": lambda: nn.Sequential(nn.Conv1d(5, 4, 3), nn.BatchNorm1d(4), nn.ReLU(), nn.MaxPool1d(2)),
    "group norm": lambda: nn.GroupNorm(5, 5),
    "lstm": lambda: Recurrent(nn.LSTM),
    "gru": lambda: Recurrent(nn.GRU),
    "rnn": lambda: Recurrent(nn.RNN),
    "lstm cell": lambda: Cell(nn.LSTMCell),
    "gru cell": lambda: Cell(nn.GRUCell),
}


def gradients(model: nn.Module, x: torch.Tensor) -> list[torch.Tensor]:
    x = x.clone().requires_grad_()
    model(x).square().sum().backward()
    return [x.grad, *(parameter.grad for parameter in model.parameters())]


@pytest.mark.parametrize("name", MODELS)
def test_gradients_are_the_cpus(name):
    torch.manual_seed(1)
    model = MODELS[name]()
    expected = gradients(model, BATCH)
    actual = gradients(copy.deepcopy(model).to("xpu"), BATCH.to("xpu"))
    assert all(gradient.device.type == "xpu" for gradient in actual)
    # The same kernels, but some are composed in another way: a few roundings in float.
    torch.testing.assert_close([gradient.cpu() for gradient in actual], expected, rtol=1e-5, atol=1e-5)


@pytest.mark.parametrize("optimizer", [torch.optim.SGD, torch.optim.AdamW, torch.optim.Adagrad])
def test_training_steps(optimizer):
    def losses(device):
        torch.manual_seed(1)
        model = MODELS["perceptron"]().to(device)
        steps = optimizer(model.parameters(), lr=0.01)
        for _ in range(4):
            steps.zero_grad()
            loss = model(BATCH.to(device)).square().mean()
            loss.backward()
            steps.step()
            yield loss.item()

    xpu = list(losses("xpu"))
    assert xpu == pytest.approx(list(losses("cpu")), rel=1e-5) and xpu[-1] < xpu[0]


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16])
def test_mixed_precision(dtype):
    model = nn.Linear(16, 3).to("xpu")
    scaler, steps = torch.amp.GradScaler("xpu"), torch.optim.SGD(model.parameters(), 0.1)
    before = model.weight.detach().clone()
    with torch.autocast("xpu", dtype):
        y = model(BATCH.to("xpu"))
    assert y.dtype == dtype
    scaler.scale(y.float().mean()).backward()
    scaler.step(steps)
    scaler.update()
    assert model.weight.dtype == torch.float32 and not torch.equal(model.weight, before)


@pytest.mark.parametrize("reentrant", [False, True])
def test_checkpointing(reentrant):
    torch.manual_seed(1)
    model, x = MODELS["perceptron"]().to("xpu"), BATCH.to("xpu").requires_grad_()
    torch.utils.checkpoint.checkpoint(model, x, use_reentrant=reentrant).square().sum().backward()
    assert torch.equal(x.grad, gradients(model, BATCH.to("xpu"))[0])


def test_second_derivatives():
    x = torch.arange(1.0, 4, device="xpu")
    assert torch.equal(torch.func.hessian(lambda x: (x**3).sum())(x), torch.diag(6 * x))
    assert torch.autograd.gradcheck(lambda x: (x * x).sin(), x.double().requires_grad_())


def test_no_gradient_is_no_detour():
    model = Attention().to("xpu")
    with torch.no_grad():
        assert not model(BATCH.to("xpu")).requires_grad
    with torch.inference_mode():
        assert model(BATCH.to("xpu")).device.type == "xpu"


def test_an_error_in_a_backward_pass_reaches_the_caller():
    class Failing(torch.autograd.Function):
        @staticmethod
        def forward(ctx, x):
            return x.clone()

        @staticmethod
        def backward(ctx, gradient):
            raise ValueError("no way back")

    with pytest.raises(ValueError, match="^no way back$"):
        Failing.apply(torch.ones(2, device="xpu", requires_grad=True)).sum().backward()
    x = torch.ones(2, device="xpu", requires_grad=True)
    (3 * x).sum().backward()
    assert x.grad.tolist() == [3, 3]


def test_accelerator():
    assert torch.accelerator.current_accelerator() == torch.device("xpu") and torch.accelerator.is_available()
    assert torch.accelerator.device_count() == 1 and torch.accelerator.current_device_index() == 0
    torch.accelerator.synchronize()
    assert torch.accelerator.current_stream().stream_id == torch.xpu.current_stream().stream_id
    assert torch.accelerator.memory_allocated() == torch.xpu.memory_allocated()
    assert torch.Stream().device == torch.device("xpu:0")
    assert torch.ones(3).pin_memory().to("xpu", non_blocking=True).tolist() == [1, 1, 1]


def test_two_devices():
    check_python(
        """
        import torch
        assert torch.accelerator.device_count() == 2
        x = torch.ones(3, device="xpu:0", requires_grad=True)
        (x.to("xpu:1") * 2).sum().backward()
        assert x.grad.device == x.device and x.grad.tolist() == [2, 2, 2]
        """,
        ORRERY_HOST_DEVICES="2",
    )


def test_the_process_ends_well_right_after_a_backward_pass():
    # The thread of the pass lets go of Python objects while the interpreter ends: one run of it nearly always aborted.
    for _ in range(3):
        done = run_python("import torch; (torch.ones(3, device='xpu', requires_grad=True) * 2).sum().backward()")
        assert (done.returncode, done.stderr) == (0, "")


CUDA = """
    import torch
    assert not torch.cuda.is_available() and torch.cuda.device_count() == 0
    print(torch.version.cuda is not None, torch.backends.cudnn.version(), torch.__config__.show())
    for call in (lambda: torch.ones(1, device="cuda"), torch.cuda.synchronize, lambda: torch.ones(1).cuda()):
        try:
            call()
        except (RuntimeError, AssertionError) as error:
            print(error)
"""


@pytest.mark.skipif(torch.cuda.is_available(), reason="asks for CUDA where there is none")
def test_cuda_says_what_it_says_without_the_device():
    without = check_python(CUDA, TORCH_DEVICE_BACKEND_AUTOLOAD="0")
    assert check_python(CUDA).replace("xpu in host memory\n", "") == without and without.count("NVIDIA driver") == 3


@pytest.mark.skipif(torch.version.cuda is None, reason="this PyTorch was built without CUDA")
def test_where_a_cuda_gpu_may_be_it_stays_the_accelerator(tmp_path):
    driver = tmp_path / "libcuda.so.1"
    subprocess.run(["cc", "-shared", "-o", driver, "-x", "c", "/dev/null"], check=True)
    code = "import torch; print(torch.accelerator.current_accelerator(), torch.ones(2, device='xpu').sum().item())"
    assert check_python(code, LD_LIBRARY_PATH=str(tmp_path)) == "cuda 2.0\n"
    assert check_python(code, LD_LIBRARY_PATH=str(tmp_path), CUDA_VISIBLE_DEVICES="") == "xpu 2.0\n"
