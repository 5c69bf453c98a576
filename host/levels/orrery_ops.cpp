// The module orrery_ops of a build for several instruction-set levels: loads the operators that were built for the
// level of this CPU, and hands over to their entry point. It is compiled for any x86-64, so that it can say what a CPU
// lacks, and without PyTorch's libraries, which `import torch` finds wherever they are.
#include <Python.h>
#include <dlfcn.h>

#include <string>

#include "module/bring_device.h"
#include "module/interpreter_version.h"

namespace orrery::host {
namespace {

// Releases the reference. Empty with a Python error if the object is no text.
std::string taken_text(PyObject* object) {
  const char* text = object ? PyUnicode_AsUTF8(object) : nullptr;
  const std::string copy = text ? text : "";
  Py_XDECREF(object);
  return copy;
}

// Replaces the error that is set by the one that a build for one instruction set raises without a device.
void raise_without_device() {
  PyObject *type, *error, *trace;
  PyErr_Fetch(&type, &error, &trace);
  PyErr_NormalizeException(&type, &error, &trace);
  const std::string why = taken_text(PyObject_Str(error));
  for (PyObject* held : {type, error, trace}) Py_XDECREF(held);
  PyErr_SetString(PyExc_ImportError, without_device(why).c_str());
}

// The level that orrery_host chose when PyTorch loaded it. If it was not loaded, the lowest, whose operators refuse to
// load without a device, with a reason. Empty with a Python error if there is none for this CPU or this setting.
std::string chosen_level() {
  PyObject* torch = PyImport_ImportModule("torch");
  if (!torch) return "";
  Py_DECREF(torch);
  // Not an import, which would register the device where PyTorch was told not to load it.
  PyObject* instructions = PyDict_GetItemString(PyImport_GetModuleDict(), "orrery_host._instructions");
  if (!instructions) return ORRERY_LOWEST_LEVEL;
  return taken_text(PyObject_CallMethod(instructions, "level", nullptr));
}

std::string folder_of_this_library() {
  static const char here = 0;
  Dl_info found{};
  dladdr(&here, &found);
  const std::string file = found.dli_fname;
  return file.substr(0, file.rfind('/') + 1);
}

using entry_point = PyObject* (*)();

// Null with a Python error. The library stays loaded, and none of its symbols is seen by others.
entry_point load(const std::string& level) {
  const std::string file = folder_of_this_library() + "orrery_host/levels/orrery_ops-" + level + ".so";
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  void* entry = library ? dlsym(library, "PyInit_orrery_ops") : nullptr;
  if (!entry) PyErr_Format(PyExc_ImportError, "orrery_ops can't load its operators: %s", dlerror());
  return reinterpret_cast<entry_point>(entry);
}

}  // namespace
}  // namespace orrery::host

extern "C" [[gnu::visibility("default")]] PyObject* PyInit_orrery_ops() {
  using namespace orrery::host;
  if (!orrery::interpreter_fits(Py_GetVersion())) return nullptr;
  const std::string level = chosen_level();
  if (level.empty()) {
    raise_without_device();
    return nullptr;
  }
  const entry_point entry = load(level);
  return entry ? entry() : nullptr;
}
