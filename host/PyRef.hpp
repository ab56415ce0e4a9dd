#pragma once

// Python.h must come first: it sets feature macros the standard headers read.
#ifndef PY_SSIZE_T_CLEAN
#define PY_SSIZE_T_CLEAN
#endif
#include <Python.h>

#include <string>
#include <vector>

namespace wsbrowser {

// An owned reference to a Python object, released when it goes. Not thread-safe: used only on
// the interpreter thread, with the interpreter's lock held.
class PyRef {
public:
    PyRef() = default;
    explicit PyRef(PyObject* object) : mObject(object) {}
    PyRef(PyRef&& other) noexcept : mObject(other.release()) {}
    PyRef& operator=(PyRef&& other) noexcept {
        Py_XDECREF(mObject);
        mObject = other.release();
        return *this;
    }
    PyRef(const PyRef&) = delete;
    PyRef& operator=(const PyRef&) = delete;
    ~PyRef() { Py_XDECREF(mObject); }

    PyObject* get() const { return mObject; }
    PyObject* release() {
        PyObject* object = mObject;
        mObject = nullptr;
        return object;
    }
    explicit operator bool() const { return mObject != nullptr; }

private:
    PyObject* mObject = nullptr;
};

// Conversions between Python objects and this program's texts; interpreter thread only.
namespace py {

// The pending Python error as "Type: message" (or the type alone), and cleared.
std::string takeError();
// A str as UTF-8; text that is not valid Unicode (lone surrogates) is escaped, never lost.
// Anything that is not a str is the empty text.
std::string toUtf8(PyObject* object);
PyRef fromUtf8(const std::string& text);
PyRef listOf(const std::vector<std::string>& texts);
// The texts of a list; anything else is an empty list.
std::vector<std::string> stringsOf(PyObject* sequence);
inline PyObject* boolean(bool flag) {
    return flag ? Py_True : Py_False;
}

} // namespace py

} // namespace wsbrowser
