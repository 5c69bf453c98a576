// The module orrery_ops of a build for several instruction-set levels: loads the operators that were built for the
// level of this CPU, and hands over to their entry point. Compiled for any x86-64, so that it can say what a CPU lacks.
#include <Python.h>
#include <dlfcn.h>

#include <exception>
#include <string>

#include "module/bring_device.h"
#include "module/interpreter_version.h"

namespace orrery::host {
namespace {

// Takes the reference; empty with a Python error if it is no text.
std::string taken_text(PyObject* object) {
  const char* text = object ? PyUnicode_AsUTF8(object) : nullptr;
  const std::string copy = text ? text : "";
  Py_XDECREF(object);
  return copy;
}

// The level that orrery_host chose when it registered the device. Without a device the lowest one, whose operators
// refuse to load with a reason. Empty with a Python error if there is a device and no choice.
std::string chosen_level() {
  PyObject* loaded = PyImport_GetModuleDict();  // not an import, which would register the device
  PyObject* instructions = PyDict_GetItemString(loaded, "orrery_host._instructions");
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
  if (!orrery::interpreter_fits(Py_GetVersion())) return nullptr;
  try {
    orrery::bring_device();
    const std::string level = orrery::host::chosen_level();
    if (level.empty()) return nullptr;
    const auto entry = orrery::host::load(level);
    return entry ? entry() : nullptr;
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_ImportError, orrery::without_device(error.what()).c_str());
    return nullptr;
  }
}
