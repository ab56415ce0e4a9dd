#include <workspace_browser/platform/json/Value.hpp>

#include <new>
#include <stdexcept>

namespace foundation::json {

// Arrays of values are the bulk of every page of rows; keep the element small.
static_assert(sizeof(Value) <= 40);

Value::Value(const char* s) {
    if (s == nullptr) {
        ::new (&mNull) Null{};
        mKind = Kind::Null;
    } else {
        ::new (&mString) std::string(s);
        mKind = Kind::String;
    }
}

Value::Value(Object o) : mObject(new Object(std::move(o))), mKind(Kind::Object) {}

Value::Value(const Value& other) : mKind(other.mKind) {
    switch (other.mKind) {
    case Kind::Undefined:
        ::new (&mUndefined) Undefined{};
        break;
    case Kind::Null:
        ::new (&mNull) Null{};
        break;
    case Kind::Boolean:
        mBool = other.mBool;
        break;
    case Kind::Double:
        mDouble = other.mDouble;
        break;
    case Kind::String:
        ::new (&mString) std::string(other.mString);
        break;
    case Kind::Array:
        ::new (&mArray) Array(other.mArray);
        break;
    case Kind::Object:
        mObject = new Object(*other.mObject);
        break;
    case Kind::Float:
        mFloat = other.mFloat;
        break;
    case Kind::Long:
        mLong = other.mLong;
        break;
    case Kind::UnsignedLong:
        mUnsignedLong = other.mUnsignedLong;
        break;
    }
}

void Value::takeFrom(Value& other) noexcept {
    mKind = other.mKind;
    switch (other.mKind) {
    case Kind::Undefined:
        ::new (&mUndefined) Undefined{};
        return; // already Undefined: nothing to reset
    case Kind::Null:
        ::new (&mNull) Null{};
        break;
    case Kind::Boolean:
        mBool = other.mBool;
        break;
    case Kind::Double:
        mDouble = other.mDouble;
        break;
    case Kind::String:
        ::new (&mString) std::string(std::move(other.mString));
        break;
    case Kind::Array:
        ::new (&mArray) Array(std::move(other.mArray));
        break;
    case Kind::Object:
        mObject = other.mObject;
        other.mObject = nullptr; // release() below must not free what this now owns
        break;
    case Kind::Float:
        mFloat = other.mFloat;
        break;
    case Kind::Long:
        mLong = other.mLong;
        break;
    case Kind::UnsignedLong:
        mUnsignedLong = other.mUnsignedLong;
        break;
    }
    other.release();
    ::new (&other.mUndefined) Undefined{};
    other.mKind = Kind::Undefined;
}

void Value::release() noexcept {
    switch (mKind) {
    case Kind::String:
        mString.~basic_string();
        break;
    case Kind::Array:
        mArray.~Array();
        break;
    case Kind::Object:
        delete mObject;
        break;
    default:
        break; // trivially destructible payloads
    }
}

Value& Value::operator=(const Value& other) {
    // Copy first: other may live inside this value, and a failed copy leaves this untouched.
    Value copy(other);
    swap(copy);
    return *this;
}

Value& Value::operator=(Value&& other) noexcept {
    if (this != &other) {
        // Move out first: other may be an element of this value's own array or object, which
        // releasing this value would destroy.
        Value taken(std::move(other));
        release();
        takeFrom(taken);
    }
    return *this;
}

void Value::swap(Value& other) noexcept {
    if (this == &other)
        return;
    // After each move the source is Undefined, which holds nothing and needs no release.
    Value tmp(std::move(other));
    other.takeFrom(*this); // NOLINT(bugprone-use-after-move): takeFrom refills the emptied value
    takeFrom(tmp);
}

const char* Value::kindName(Kind kind) noexcept {
    switch (kind) {
    case Kind::Undefined:
        return traits<Undefined>::name;
    case Kind::Null:
        return traits<Null>::name;
    case Kind::Boolean:
        return traits<bool>::name;
    case Kind::Double:
        return traits<double>::name;
    case Kind::String:
        return traits<std::string>::name;
    case Kind::Array:
        return traits<Array>::name;
    case Kind::Object:
        return traits<Object>::name;
    case Kind::Float:
        return traits<float>::name;
    case Kind::Long:
        return traits<long>::name;
    case Kind::UnsignedLong:
        return traits<unsigned long>::name;
    }
    return "unknown";
}

void Value::throwInvalidConversion(const char* target) const {
    std::string text = "invalid conversion: ";
    text += kindName();
    text += " to ";
    text += target;
    throw std::runtime_error(text);
}

Value& Value::operator[](const std::string& key) {
    if (mKind == Kind::Undefined) {
        mObject = new Object();
        mKind = Kind::Object;
    } else if (mKind != Kind::Object) {
        throwInvalidConversion(traits<Object>::name);
    }
    return (*mObject)[key];
}

bool operator==(const Value& a, const Value& b) {
    using Kind = Value::Kind;
    if (a.mKind != b.mKind)
        return false;
    switch (a.mKind) {
    case Kind::Undefined:
    case Kind::Null:
        return true;
    case Kind::Boolean:
        return a.mBool == b.mBool;
    case Kind::Double:
        return a.mDouble == b.mDouble;
    case Kind::String:
        return a.mString == b.mString;
    case Kind::Array: {
        // Plain loops keep the frame of each nesting level small.
        if (a.mArray.size() != b.mArray.size())
            return false;
        for (std::size_t i = 0; i < a.mArray.size(); ++i)
            if (!(a.mArray[i] == b.mArray[i]))
                return false;
        return true;
    }
    case Kind::Object: {
        if (a.mObject->size() != b.mObject->size())
            return false;
        for (auto i = a.mObject->begin(), j = b.mObject->begin(); i != a.mObject->end(); ++i, ++j)
            if (i->first != j->first || !(i->second == j->second))
                return false;
        return true;
    }
    case Kind::Float:
        return a.mFloat == b.mFloat;
    case Kind::Long:
        return a.mLong == b.mLong;
    case Kind::UnsignedLong:
        return a.mUnsignedLong == b.mUnsignedLong;
    }
    return false;
}

} // namespace foundation::json
