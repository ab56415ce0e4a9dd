#include "ChangeScanner.hpp"

#define NPY_NO_DEPRECATED_API NPY_1_7_API_VERSION
#include <numpy/ndarraytypes.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <unordered_map>

namespace wsbrowser {

namespace {

// How far a digest follows nesting: containers in containers to this depth, and at most this
// many items followed into per variable (their identities still count beyond it).
constexpr int kMaxDepth = 4;
constexpr long kVisitsPerVariable = 100000;

std::uint64_t mix(std::uint64_t h, std::uint64_t v) {
    return (std::rotl(h, 23) ^ v) * 0x9E3779B97F4A7C15ULL;
}

std::uint64_t addressOf(const void* p) {
    return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(p));
}

// Types whose values cannot change in place: their identity and value say everything.
bool isAtom(PyTypeObject* type) {
    return type == &PyLong_Type || type == &PyFloat_Type || type == &PyUnicode_Type ||
           type == &PyBool_Type || type == &PyBytes_Type || type == &PyComplex_Type ||
           type == Py_TYPE(Py_None);
}

// Hashes a strided block of memory element by element, a contiguous run at once.
void hashStrided(XXH3_state_t* state, const char* data, const npy_intp* shape,
                 const npy_intp* strides, int ndim, npy_intp itemsize) {
    if (ndim == 0) {
        XXH3_64bits_update(state, data, static_cast<std::size_t>(itemsize));
        return;
    }
    const npy_intp n = shape[0];
    const npy_intp stride = strides[0];
    if (ndim == 1 && stride == itemsize) {
        XXH3_64bits_update(state, data, static_cast<std::size_t>(n * itemsize));
        return;
    }
    for (npy_intp i = 0; i < n; ++i)
        hashStrided(state, data + i * stride, shape + 1, strides + 1, ndim - 1, itemsize);
}

} // namespace

ChangeScanner::ChangeScanner(bool showAll, PyRef hidden, PyRef parts, PyRef arrayType)
    : mShowAll(showAll), mHidden(std::move(hidden)), mParts(std::move(parts)),
      mArrayType(std::move(arrayType)) {}

template <class Visit> void ChangeScanner::forEachShown(PyObject* ns, Visit visit) const {
    if (!PyDict_Check(ns))
        return;
    Py_ssize_t pos = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    while (PyDict_Next(ns, &pos, &key, &value)) {
        if (isShown(key, value))
            visit(key, value);
    }
}

std::optional<std::string_view> ChangeScanner::utf8(PyObject* name) {
    Py_ssize_t length = 0;
    const char* text = PyUnicode_AsUTF8AndSize(name, &length);
    if (!text) {
        PyErr_Clear(); // a name with lone surrogates cannot be shown anyway
        return std::nullopt;
    }
    return std::string_view(text, static_cast<std::size_t>(length));
}

bool ChangeScanner::isShown(PyObject* name, PyObject* value) const {
    if (!PyUnicode_Check(name))
        return false;
    if (mShowAll)
        return true;
    if (PyUnicode_GET_LENGTH(name) > 0 && PyUnicode_READ_CHAR(name, 0) == '_')
        return false;
    // By type, not isinstance(): isinstance may run a user's __class__ property.
    PyObject* hidden = mHidden.get();
    if (hidden && PyTuple_Check(hidden)) {
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(hidden); ++i) {
            PyObject* type = PyTuple_GET_ITEM(hidden, i);
            if (PyType_Check(type) &&
                PyType_IsSubtype(Py_TYPE(value), reinterpret_cast<PyTypeObject*>(type)))
                return false;
        }
    }
    return true;
}

std::uint64_t ChangeScanner::digest(PyObject* value) {
    mVisitsLeft = kVisitsPerVariable;
    return contents(value, 0);
}

std::uint64_t ChangeScanner::items(PyObject* const* items, Py_ssize_t count, int depth) {
    // The items' identities in one pass over the pointer array, then the contents of the
    // containers among them, as far as the visit budget goes.
    std::uint64_t h = XXH3_64bits(items, static_cast<std::size_t>(count) * sizeof(PyObject*));
    if (depth >= kMaxDepth)
        return h;
    for (Py_ssize_t i = 0; i < count && mVisitsLeft > 0; ++i) {
        if (!isAtom(Py_TYPE(items[i]))) {
            --mVisitsLeft;
            h = mix(h, contents(items[i], depth + 1));
        }
    }
    return h;
}

std::uint64_t ChangeScanner::array(PyObject* value) {
    auto* a = reinterpret_cast<PyArrayObject*>(value);
    const int ndim = PyArray_NDIM(a);
    const npy_intp* shape = PyArray_DIMS(a);
    const npy_intp* strides = PyArray_STRIDES(a);
    PyArray_Descr* descr = PyArray_DESCR(a);
    const npy_intp itemsize = descr->elsize;
    std::uint64_t h = mix(addressOf(PyArray_DATA(a)), addressOf(descr));
    h = mix(h, static_cast<std::uint64_t>(descr->type_num));
    // Dimensions of length one and repeats (stride 0, as broadcasting makes) add nothing to
    // the memory read; the shape and strides still enter the digest.
    npy_intp walkShape[NPY_MAXDIMS];
    npy_intp walkStrides[NPY_MAXDIMS];
    int walkDims = 0;
    bool empty = false;
    for (int d = 0; d < ndim; ++d) {
        h = mix(mix(h, static_cast<std::uint64_t>(shape[d])),
                static_cast<std::uint64_t>(strides[d]));
        if (shape[d] == 0)
            empty = true;
        if (shape[d] > 1 && strides[d] != 0) {
            walkShape[walkDims] = shape[d];
            walkStrides[walkDims] = strides[d];
            ++walkDims;
        }
    }
    if (empty || itemsize <= 0)
        return h;
    const auto* data = static_cast<const char*>(PyArray_DATA(a));
    if (PyArray_FLAGS(a) & (NPY_ARRAY_C_CONTIGUOUS | NPY_ARRAY_F_CONTIGUOUS)) {
        npy_intp bytes = itemsize;
        for (int d = 0; d < ndim; ++d)
            bytes *= shape[d];
        return mix(h, XXH3_64bits(data, static_cast<std::size_t>(bytes)));
    }
    XXH3_state_t* state = XXH3_createState();
    if (!state)
        return h;
    XXH3_64bits_reset(state);
    hashStrided(state, data, walkShape, walkStrides, walkDims, itemsize);
    h = mix(h, XXH3_64bits_digest(state));
    XXH3_freeState(state);
    return h;
}

std::uint64_t ChangeScanner::contents(PyObject* value, int depth) {
    PyTypeObject* type = Py_TYPE(value);
    std::uint64_t h = addressOf(type);
    if (type == &PyFloat_Type) {
        return mix(h, std::bit_cast<std::uint64_t>(PyFloat_AS_DOUBLE(value)));
    }
    if (isAtom(type)) {
        // Their hashes run no user code and are cached for texts; an address alone could be
        // recycled for a new value between two scans.
        const Py_hash_t hash = PyObject_Hash(value);
        if (hash == -1)
            PyErr_Clear();
        return mix(h, static_cast<std::uint64_t>(hash));
    }
    if (mArrayType && type == reinterpret_cast<PyTypeObject*>(mArrayType.get()))
        return mix(h, array(value));
    if (type == &PyTuple_Type)
        return mix(h, items(&PyTuple_GET_ITEM(value, 0), PyTuple_GET_SIZE(value), depth));
    if (PyList_Check(value))
        return mix(h, items(PySequence_Fast_ITEMS(value), PyList_GET_SIZE(value), depth));
    if (PyDict_Check(value)) {
        h = mix(h, static_cast<std::uint64_t>(PyDict_GET_SIZE(value)));
        Py_ssize_t pos = 0;
        PyObject* key = nullptr;
        PyObject* item = nullptr;
        while (PyDict_Next(value, &pos, &key, &item)) {
            h = mix(mix(h, addressOf(key)), addressOf(item));
            if (depth < kMaxDepth && mVisitsLeft > 0 && !isAtom(Py_TYPE(item))) {
                --mVisitsLeft;
                Py_INCREF(item); // the item's own digest may run Python code
                h = mix(h, contents(item, depth + 1));
                Py_DECREF(item);
            }
        }
        return h;
    }
    if (PyAnySet_Check(value)) {
        // Set order is not the user's: identities are combined in an order-free way.
        std::uint64_t sum = static_cast<std::uint64_t>(PySet_GET_SIZE(value));
        Py_ssize_t pos = 0;
        PyObject* key = nullptr;
        Py_hash_t hash = 0;
        while (_PySet_NextEntry(value, &pos, &key, &hash))
            sum += mix(0x51ED27, addressOf(key));
        return mix(h, sum);
    }
    if (PyByteArray_Check(value)) {
        return mix(h, XXH3_64bits(PyByteArray_AS_STRING(value),
                                  static_cast<std::size_t>(PyByteArray_GET_SIZE(value))));
    }
    if (depth >= kMaxDepth || !mParts)
        return h;
    // Anything else is described by its parts, which the helper module knows how to find.
    PyRef parts(PyObject_CallOneArg(mParts.get(), value));
    if (!parts) {
        PyErr_Clear();
        return h;
    }
    if (PyTuple_Check(parts.get())) {
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(parts.get()); ++i) {
            // Parts are often made afresh (a view, a tuple of a deque's items): their contents
            // count, not their identities.
            h = mix(h, contents(PyTuple_GET_ITEM(parts.get(), i), depth + 1));
        }
    }
    return h;
}

ChangeScanner::~ChangeScanner() {
    for (const Slot& slot : mSlots)
        Py_XDECREF(slot.key);
}

void ChangeScanner::abandon() {
    mSlots.clear();
    for (PyRef* ref : {&mHidden, &mParts, &mArrayType})
        ref->release();
}

ChangeScanner::Changes ChangeScanner::scan(PyObject* ns) {
    Changes changes;
    std::vector<Slot>& old = mSlots;
    std::vector<Slot> next;
    next.reserve(old.size() + 16);
    std::vector<bool> matched(old.size(), false);
    // Built only when the namespace's order differs from the last scan's (a variable was added
    // or deleted): the old slots by key object, then by name for a key that is a new but equal
    // text object.
    std::unordered_map<PyObject*, std::size_t> byKey;
    std::unordered_map<std::string_view, std::size_t> byName;
    const auto findOld = [&](PyObject* key, std::string_view name) -> std::size_t {
        if (byKey.empty() && !old.empty()) {
            for (std::size_t i = 0; i < old.size(); ++i) {
                byKey.emplace(old[i].key, i);
                if (const auto text = utf8(old[i].key))
                    byName.emplace(*text, i);
            }
        }
        if (const auto found = byKey.find(key); found != byKey.end())
            return found->second;
        if (const auto found = byName.find(name); found != byName.end())
            return found->second;
        return old.size();
    };

    std::size_t cursor = 0;
    forEachShown(ns, [&](PyObject* key, PyObject* value) {
        // Following a value's parts may run Python code that changes the namespace: the key
        // and the value stay alive while this entry is looked at.
        Py_INCREF(key);
        Py_INCREF(value);
        const std::uint64_t d = digest(value);
        std::size_t index = old.size();
        if (cursor < old.size() && old[cursor].key == key) {
            index = cursor++;
        } else if (const auto name = utf8(key)) {
            index = findOld(key, *name);
            if (index < old.size())
                cursor = index + 1;
        }
        const bool known = index < old.size() && !matched[index];
        if (known)
            matched[index] = true;
        if (!known || old[index].identity != value || old[index].digest != d) {
            if (const auto name = utf8(key))
                changes.names.emplace_back(*name);
        }
        next.push_back(Slot{key, value, d}); // takes the reference
        Py_DECREF(value);
    });
    for (std::size_t i = 0; i < old.size(); ++i) {
        if (!matched[i]) {
            if (const auto name = utf8(old[i].key))
                changes.deleted.emplace_back(*name);
        }
        Py_DECREF(old[i].key);
    }
    changes.cleared = !old.empty() && next.empty();
    mSlots = std::move(next);
    std::sort(changes.names.begin(), changes.names.end());
    std::sort(changes.deleted.begin(), changes.deleted.end());
    return changes;
}

ChangeScanner::Changes ChangeScanner::resync(PyObject* ns) {
    Changes changes = scan(ns);
    changes.names.clear();
    changes.names.reserve(mSlots.size());
    std::unordered_set<std::string_view> current;
    for (const Slot& slot : mSlots) {
        if (const auto name = utf8(slot.key)) {
            changes.names.emplace_back(*name);
            current.insert(*name);
        }
    }
    std::sort(changes.names.begin(), changes.names.end());
    for (const std::string& name : mVanished) {
        if (!current.contains(name))
            changes.deleted.push_back(name);
    }
    mVanished.clear();
    std::sort(changes.deleted.begin(), changes.deleted.end());
    changes.deleted.erase(std::unique(changes.deleted.begin(), changes.deleted.end()),
                          changes.deleted.end());
    return changes;
}

std::vector<std::string> ChangeScanner::names(PyObject* ns) const {
    std::vector<std::string> shown;
    forEachShown(ns, [&shown](PyObject* key, PyObject*) {
        if (const auto name = utf8(key))
            shown.emplace_back(*name);
    });
    std::sort(shown.begin(), shown.end());
    return shown;
}

void ChangeScanner::markVanished(const std::string& name) {
    // Bounded by the names a page can ask for; cleared by every resync.
    mVanished.insert(name);
}

} // namespace wsbrowser
