"""Settings from the four environment variables, and the info queries of the device."""

import pytest
from sycl_settings import host_settings, native

VARIABLES = [
    "ORRERY_HOST_DEVICE_NAME",
    "ORRERY_HOST_MAX_WORK_GROUP_SIZE",
    "ORRERY_HOST_DEVICES",
    "ORRERY_HOST_SCHEDULE",
]


@pytest.fixture(autouse=True)
def no_variables(monkeypatch):
    for name in VARIABLES:
        monkeypatch.delenv(name, raising=False)


def read():
    s = native.settings_from_environment()
    return s.max_work_group_size, s.device_count, s.shuffle, s.seed


def test_defaults():
    assert read() == (1024, 1, False, 0)
    assert native.settings_from_environment().device_name.startswith("Host CPU")


def test_an_empty_variable_is_no_variable(monkeypatch):
    for name in VARIABLES:
        monkeypatch.setenv(name, "")
    assert read() == (1024, 1, False, 0)
    assert native.settings_from_environment().device_name.startswith("Host CPU")


def test_good_values(monkeypatch):
    monkeypatch.setenv("ORRERY_HOST_DEVICE_NAME", "A Device (TM) 9")
    monkeypatch.setenv("ORRERY_HOST_MAX_WORK_GROUP_SIZE", "512")
    monkeypatch.setenv("ORRERY_HOST_DEVICES", "3")
    monkeypatch.setenv("ORRERY_HOST_SCHEDULE", "shuffle:18446744073709551615")
    assert read() == (512, 3, True, 2**64 - 1)
    assert native.settings_from_environment().device_name == "A Device (TM) 9"
    monkeypatch.setenv("ORRERY_HOST_SCHEDULE", "linear")
    assert read() == (512, 3, False, 0)


NUMBER = "{} must be a whole number from {} to {}, not '{}'."

NOT_SIZES = ("0", "-1", "65537", "12x", "x", " 7", "1.5", "0x10", "99999999999999999999")
NOT_COUNTS = ("0", "65", "two", "+1")
BAD_NUMBERS = [("ORRERY_HOST_MAX_WORK_GROUP_SIZE", 65536, value) for value in NOT_SIZES]
BAD_NUMBERS += [("ORRERY_HOST_DEVICES", 64, value) for value in NOT_COUNTS]


@pytest.mark.parametrize("variable, largest, value", BAD_NUMBERS)
def test_bad_numbers(monkeypatch, variable, largest, value):
    monkeypatch.setenv(variable, value)
    with pytest.raises(ValueError) as error:
        native.settings_from_environment()
    assert str(error.value) == NUMBER.format(variable, 1, largest, value)


@pytest.mark.parametrize("value", ["random", "shuffle", "Linear", "linear "])
def test_bad_schedules(monkeypatch, value):
    monkeypatch.setenv("ORRERY_HOST_SCHEDULE", value)
    with pytest.raises(ValueError) as error:
        native.settings_from_environment()
    assert str(error.value) == f"ORRERY_HOST_SCHEDULE must be linear or shuffle:SEED, not '{value}'."


@pytest.mark.parametrize("seed", ["", "-3", "one", "18446744073709551616"])
def test_bad_seeds(monkeypatch, seed):
    monkeypatch.setenv("ORRERY_HOST_SCHEDULE", "shuffle:" + seed)
    with pytest.raises(ValueError) as error:
        native.settings_from_environment()
    assert str(error.value) == NUMBER.format("The seed in ORRERY_HOST_SCHEDULE", 0, 2**64 - 1, seed)


def test_what_the_device_answers():
    with host_settings(device_name="Another Name", max_work_group_size=77):
        assert (native.device_name(), native.max_work_group_size()) == ("Another Name", 77)
    assert native.local_mem_size() == 128 * 1024
