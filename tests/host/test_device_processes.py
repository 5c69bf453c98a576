"""Several processes: what children of fork() can do, and how sending an xpu tensor is refused."""

import copy
import io
import pickle

import orrery_host  # noqa: F401
import pytest
import torch
from device_process import check_python, last_line, run_python

SENTENCE = "RuntimeError: An xpu tensor can't be sent to another process; send a CPU tensor and move it to xpu there."

LOADER = """
    import signal, sys, torch
    from torch.utils.data import DataLoader, Dataset

    class Rows(Dataset):
        def __init__(self, device, wrap):
            self.device, self.wrap = device, wrap
        def __len__(self):
            return 6
        def __getitem__(self, i):
            return self.wrap(torch.full((3,), float(i), device=self.device))

    def requiring(x):
        return x.requires_grad_() * 2

    def collate(rows):
        return rows

    if __name__ == "__main__":
        signal.alarm(60)
        torch.randn(500, 500, device="xpu").sin()
        rows = Rows("{device}", {wrap})
        for rows in DataLoader(rows, num_workers=2, multiprocessing_context="{start}", collate_fn=collate):
            print(rows[0].tolist(), flush=True)
"""


@pytest.mark.parametrize("start", ["fork", "spawn"])
def test_a_data_loaders_worker_can_return_cpu_tensors(start, tmp_path):
    done = run_python(LOADER.format(device="cpu", wrap="abs", start=start), tmp_path / "loader.py")
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines() == [str([float(i)] * 3) for i in range(6)]


@pytest.mark.parametrize(
    "start, wrap", [("spawn", "abs"), ("fork", "abs"), ("fork", "torch.nn.Parameter"), ("fork", "requiring")]
)
def test_an_xpu_tensor_of_a_worker_is_an_error_in_the_main_process(start, wrap, tmp_path):
    done = run_python(LOADER.format(device="xpu", wrap=wrap, start=start), tmp_path / "loader.py")
    # PyTorch ends the other worker then, and sometimes adds that it was terminated.
    assert done.returncode == 1 and SENTENCE in done.stderr.splitlines(), done.stderr


def test_an_xpu_tensor_as_an_argument_of_a_process(tmp_path):
    done = run_python(
        """
        import multiprocessing, torch
        if __name__ == "__main__":
            x = torch.ones(2, device="xpu")
            multiprocessing.get_context("spawn").Process(target=print, args=(x,)).start()
        """,
        tmp_path / "start.py",
    )
    assert done.returncode == 1 and last_line(done) == SENTENCE, done.stderr
    assert done.stderr.count("Traceback") == 1  # the caller's; no child was started


def test_a_tensor_of_the_device_is_not_shared():
    x = torch.ones(2, device="xpu")
    with pytest.raises(RuntimeError, match="^An xpu tensor can't be sent to another process; "):
        x.share_memory_()
    assert x.untyped_storage().device.type == "xpu" and x.tolist() == [1, 1]
    assert torch.ones(2).share_memory_().is_shared()


def test_copies_and_files_are_as_ever():
    x = torch.arange(5.0, device="xpu")
    model = torch.nn.Linear(3, 2).to("xpu")
    file = io.BytesIO()
    torch.save({"x": x, "model": model.state_dict()}, file)
    file.seek(0)
    for same in (pickle.loads(pickle.dumps(x)), copy.deepcopy(x), torch.load(file)["x"]):
        assert torch.equal(same, x) and same.device == x.device and same.data_ptr() != x.data_ptr()
    file.seek(0)
    assert torch.load(file, map_location="cpu")["x"].device.type == "cpu"
    assert torch.equal(copy.deepcopy(model).weight, model.weight)


def test_children_of_fork_while_other_threads_use_the_device():
    check_python(
        """
        import contextlib, torch
        from forked import in_child, repeating

        def churn():
            torch.empty(200 << 20, dtype=torch.uint8, device="xpu")  # mapped anew each time, under the pool's lock

        def uses_the_device():
            x = torch.ones(50, device="xpu")
            return (x + 1).cpu().sum().item() == 100 and torch.xpu.Stream().sycl_queue != 0

        with contextlib.ExitStack() as threads:
            for _ in range(3):
                threads.enter_context(repeating(churn))
            for _ in range(60):
                assert in_child(uses_the_device)
        """
    )


def test_a_child_does_not_wait_for_threads_that_it_does_not_have():
    check_python(
        """
        import torch
        from forked import in_child

        torch.set_num_threads(2)
        x = torch.randn(1000, 1001, device="xpu")
        expected = x.sin()  # the threads are there now

        def child():
            x.copy_(x.clone())
            same = torch.equal(x.sin(), expected) and x.t().contiguous().shape == (1001, 1000)
            return same and torch.get_num_threads() == 1

        for _ in range(2):
            assert in_child(child)
        assert torch.get_num_threads() == 2
        """
    )


def test_a_child_that_leaves_the_device_alone_keeps_its_threads():
    check_python(
        """
        import torch
        from forked import in_child

        torch.set_num_threads(2)
        assert in_child(lambda: torch.ones(3).sum() == 3 and torch.get_num_threads() == 2)
        """
    )
