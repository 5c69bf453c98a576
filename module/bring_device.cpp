// Registers the device if this module is imported first.
#include "module/bring_device.h"

#include <Python.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>

#include <stdexcept>
#include <string>

namespace orrery {

// Uses only the interpreter's stable interface, since it runs before the interpreter's version is tested.
void bring_device() {
  if (c10::impl::hasDeviceGuardImpl(c10::DeviceType::XPU) || !Py_IsInitialized()) return;
  const PyGILState_STATE lock = PyGILState_Ensure();
  std::string why;
  PyObject* xpu = PyImport_ImportModule("torch.xpu");
  PyObject* done = xpu ? PyObject_CallMethod(xpu, "init", nullptr) : nullptr;
  // PyTorch raises AssertionError for a build without xpu; the query that follows has the clearer text.
  if (!done && !PyErr_ExceptionMatches(PyExc_AssertionError)) {
    PyObject *type, *error, *trace;
    PyErr_Fetch(&type, &error, &trace);
    PyErr_NormalizeException(&type, &error, &trace);
    PyObject* text = PyObject_Str(error);
    const char* utf8 = text ? PyUnicode_AsUTF8(text) : nullptr;
    why = utf8 ? utf8 : "importing torch failed";
    for (PyObject* held : {type, error, trace, text}) Py_XDECREF(held);
  }
  PyErr_Clear();
  Py_XDECREF(done);
  Py_XDECREF(xpu);
  PyGILState_Release(lock);
  if (!why.empty()) throw std::runtime_error(why);
}

}  // namespace orrery
