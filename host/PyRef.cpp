#include "PyRef.hpp"

namespace wsbrowser::py {

std::string takeError() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    // "KeyboardInterrupt", "ValueError: bad value": the type says as much as the message.
    std::string text = type && PyType_Check(type) ? reinterpret_cast<PyTypeObject*>(type)->tp_name
                                                  : "unknown error";
    if (value && value != Py_None) {
        if (PyObject* str = PyObject_Str(value)) {
            if (const char* utf8 = PyUnicode_AsUTF8(str); utf8 && *utf8)
                text += std::string(": ") + utf8;
            Py_DECREF(str);
        }
    }
    PyErr_Clear();
    Py_XDECREF(type);
    Py_XDECREF(value);
    Py_XDECREF(traceback);
    return text;
}

std::string toUtf8(PyObject* object) {
    if (!object || !PyUnicode_Check(object))
        return {};
    Py_ssize_t size = 0;
    if (const char* data = PyUnicode_AsUTF8AndSize(object, &size))
        return std::string(data, static_cast<std::size_t>(size));
    PyErr_Clear();
    PyRef bytes(PyUnicode_AsEncodedString(object, "utf-8", "backslashreplace"));
    if (!bytes) {
        PyErr_Clear();
        return "?";
    }
    return std::string(PyBytes_AS_STRING(bytes.get()),
                       static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
}

PyRef fromUtf8(const std::string& text) {
    return PyRef(
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

PyRef listOf(const std::vector<std::string>& texts) {
    PyRef list(PyList_New(static_cast<Py_ssize_t>(texts.size())));
    if (!list)
        return list;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        PyRef item = fromUtf8(texts[i]);
        if (!item)
            return PyRef();
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), item.release());
    }
    return list;
}

std::vector<std::string> stringsOf(PyObject* sequence) {
    std::vector<std::string> texts;
    if (!sequence || !PyList_Check(sequence))
        return texts;
    const Py_ssize_t count = PyList_GET_SIZE(sequence);
    texts.reserve(static_cast<std::size_t>(count));
    for (Py_ssize_t i = 0; i < count; ++i)
        texts.push_back(toUtf8(PyList_GET_ITEM(sequence, i)));
    return texts;
}

} // namespace wsbrowser::py
