"""What tests of fork() share. A child that hangs is ended by its alarm."""

import contextlib
import os
import signal
import threading
import traceback


def in_child(act) -> bool:
    """Whether `act()` is true in a child."""
    pid = os.fork()
    if pid == 0:
        signal.alarm(20)
        true = False
        try:
            true = act()
        except BaseException:
            traceback.print_exc()
        finally:
            os._exit(0 if true else 1)
    return os.waitpid(pid, 0)[1] == 0


@contextlib.contextmanager
def repeating(work):
    """Another thread does `work()` again and again."""
    ended = threading.Event()

    def loop():
        while not ended.is_set():
            work()

    thread = threading.Thread(target=loop)
    thread.start()
    try:
        yield
    finally:
        ended.set()
        thread.join()
