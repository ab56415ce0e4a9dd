#pragma once

#include "PyRef.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace wsbrowser {

// Finds which workspace variables changed since the last look, after every command. Each
// shown variable is remembered by name with its identity, its type and a digest of its
// contents: numbers and texts by value, arrays by a hash of their whole buffer (with shape,
// strides and dtype), bytearrays by their bytes, lists, tuples, dicts and sets by the identities
// of their items and the digests of the containers among them, and anything else by the parts
// the helper module's `parts` names (a DataFrame's columns and index, a masked array's data
// and mask, a deque's items, an object's __dict__). Nesting is followed to a bounded depth and
// a bounded number of items per variable, so the cost of a scan stays proportional to the
// workspace, not to what hides inside it.
// Not thread-safe: interpreter thread only, with the GIL held.
class ChangeScanner {
public:
    struct Changes {
        std::vector<std::string> names;   // changed (scan) or every current name (resync), sorted
        std::vector<std::string> deleted; // sorted
        bool cleared = false;             // there were variables and now there are none
    };

    // `hidden` is a tuple of types whose instances are not variables (modules, classes,
    // functions) unless `showAll`; `parts` answers the sub-objects of other objects, or None.
    // `arrayType` is numpy.ndarray, or empty without numpy. The scanner owns them.
    ChangeScanner(bool showAll, PyRef hidden, PyRef parts, PyRef arrayType);
    // Releases the names and objects it holds; needs the GIL.
    ~ChangeScanner();
    ChangeScanner(const ChangeScanner&) = delete;
    ChangeScanner& operator=(const ChangeScanner&) = delete;
    // Forgets the names and objects without releasing them, for when the interpreter has
    // already ended.
    void abandon();

    bool isShown(PyObject* name, PyObject* value) const;
    // What changed in `ns` since the previous scan.
    Changes scan(PyObject* ns);
    // For a listener that starts over: the deletions (with the names answered as vanished)
    // and every current name.
    Changes resync(PyObject* ns);
    // The shown names of `ns`, sorted.
    std::vector<std::string> names(PyObject* ns) const;
    // A name a fetch found gone; the next resync reports it deleted unless it is back.
    void markVanished(const std::string& name);

private:
    // One shown variable as the last scan saw it, in the namespace's order. The name is held
    // by a strong reference to the namespace's own key object, so that an unchanged namespace
    // is matched entry by entry by pointer, without hashing a single name.
    struct Slot {
        PyObject* key = nullptr;
        const void* identity = nullptr;
        std::uint64_t digest = 0;
    };

    static std::optional<std::string_view> utf8(PyObject* name);
    // Calls `visit(key, value)` for each shown entry of the namespace dict `ns`.
    template <class Visit> void forEachShown(PyObject* ns, Visit visit) const;
    // The digest of one value, with a fresh visit budget.
    std::uint64_t digest(PyObject* value);
    std::uint64_t contents(PyObject* value, int depth);
    std::uint64_t items(PyObject* const* items, Py_ssize_t count, int depth);
    std::uint64_t array(PyObject* value);

    const bool mShowAll;
    PyRef mHidden;
    PyRef mParts;
    PyRef mArrayType;
    std::vector<Slot> mSlots;
    std::unordered_set<std::string> mVanished;
    long mVisitsLeft = 0; // items still to be followed into for the current variable
};

} // namespace wsbrowser
