#pragma once

#include <workspace_browser/Export.hpp>

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace foundation::json {

// The kind of a value that holds nothing at all (a missing member), as opposed to null.
struct Undefined {
    friend bool operator==(Undefined, Undefined) { return true; }
};
// JSON null.
struct Null {
    friend bool operator==(Null, Null) { return true; }
};

class Value;
using Array = std::vector<Value>;
using Object = std::map<std::string, Value>; // ordered by key

// The printable name of each type a value can hold; conversion failures quote these names.
// Only the types below have a name; asking for any other is a link error.
template <class T> struct traits { static const char* const name; };
template <> struct traits<Undefined> {
    static constexpr const char* name = "foundation::json::Undefined";
};
template <> struct traits<Null> { static constexpr const char* name = "foundation::json::Null"; };
template <> struct traits<bool> { static constexpr const char* name = "bool"; };
template <> struct traits<double> { static constexpr const char* name = "double"; };
template <> struct traits<std::string> { static constexpr const char* name = "std::string"; };
template <> struct traits<Array> {
    static constexpr const char* name = "std::vector<foundation::json::Value>";
};
template <> struct traits<Object> {
    static constexpr const char* name = "std::map<std::string, foundation::json::Value>";
};
template <> struct traits<float> { static constexpr const char* name = "float"; };
template <> struct traits<long> { static constexpr const char* name = "long"; };
template <> struct traits<unsigned long> { static constexpr const char* name = "unsigned long"; };
template <> struct traits<int> { static constexpr const char* name = "int"; };

// One JSON value of one of ten kinds. A value is 40 bytes: scalars and strings are held inline,
// arrays inline as a vector, objects behind one owned pointer, so moves never allocate and a
// parser can build arrays in place (reserve, emplace_back) and move them in.
// A moved-from value is Undefined. Copying, comparing and destroying recurse once per nesting
// level with small frames (10,000 levels fit in 1 MB of stack in optimised builds); serializing
// does not recurse at all.
// Thread-safety: none of its own; concurrent reads are safe, any write needs exclusive access.
class WSB_EXPORT Value {
public:
    enum class Kind {
        Undefined,
        Null,
        Boolean,
        Double,
        String,
        Array,
        Object,
        Float,
        Long,
        UnsignedLong
    };

    Value() noexcept : mUndefined{}, mKind(Kind::Undefined) {}
    Value(Undefined) noexcept : Value() {}
    Value(Null) noexcept : mNull{}, mKind(Kind::Null) {}
    Value(std::nullptr_t) noexcept : Value(Null{}) {}
    Value(bool b) noexcept : mBool(b), mKind(Kind::Boolean) {}
    // Numbers on the wire are doubles, so plain integers are stored as doubles too.
    Value(int i) noexcept : mDouble(i), mKind(Kind::Double) {}
    Value(unsigned int i) noexcept : mDouble(i), mKind(Kind::Double) {}
    Value(double d) noexcept : mDouble(d), mKind(Kind::Double) {}
    Value(float f) noexcept : mFloat(f), mKind(Kind::Float) {}
    Value(long l) noexcept : mLong(l), mKind(Kind::Long) {}
    Value(unsigned long u) noexcept : mUnsignedLong(u), mKind(Kind::UnsignedLong) {}
    // A null pointer gives null rather than crashing inside std::string.
    Value(const char* s);
    Value(std::string_view s) : mString(s), mKind(Kind::String) {}
    Value(std::string s) noexcept : mString(std::move(s)), mKind(Kind::String) {}
    Value(Array a) noexcept : mArray(std::move(a)), mKind(Kind::Array) {}
    Value(Object o);

    Value(const Value& other);
    Value(Value&& other) noexcept { takeFrom(other); }
    Value& operator=(const Value& other);
    Value& operator=(Value&& other) noexcept;
    ~Value() { release(); }

    void swap(Value& other) noexcept;

    Kind kind() const noexcept { return mKind; }
    // traits<T>::name of the held kind.
    const char* kindName() const noexcept { return kindName(mKind); }
    static const char* kindName(Kind kind) noexcept;

    // T: Undefined, Null, bool, double, std::string, Array, Object, float, long, unsigned long.
    template <class T> bool is() const noexcept { return mKind == kindOf<T>(); }
    // Throws std::runtime_error "invalid conversion: <kindName()> to <traits<T>::name>" when
    // the value holds another kind.
    template <class T> const T& get() const {
        if (mKind != kindOf<T>())
            throwInvalidConversion(traits<T>::name);
        return const_cast<Value*>(this)->payload<T>();
    }
    template <class T> T& get() {
        if (mKind != kindOf<T>())
            throwInvalidConversion(traits<T>::name);
        return payload<T>();
    }

    // Member access that creates: an Undefined value first becomes an empty object, and an
    // absent key is inserted as Undefined. Any kind other than Undefined or Object throws the
    // invalid-conversion error.
    Value& operator[](const std::string& key);
    // An integer index would otherwise convert silently to a null const char* key.
    Value& operator[](std::size_t) = delete;

    // Same kind and equal payload; values of different kinds (even 1 and 1L) differ.
    friend WSB_EXPORT bool operator==(const Value& a, const Value& b);

    [[noreturn]] void throwInvalidConversion(const char* target) const;

private:
    template <class> static constexpr bool kAlwaysFalse = false;

    template <class T> static constexpr Kind kindOf() noexcept {
        if constexpr (std::is_same_v<T, Undefined>)
            return Kind::Undefined;
        else if constexpr (std::is_same_v<T, Null>)
            return Kind::Null;
        else if constexpr (std::is_same_v<T, bool>)
            return Kind::Boolean;
        else if constexpr (std::is_same_v<T, double>)
            return Kind::Double;
        else if constexpr (std::is_same_v<T, std::string>)
            return Kind::String;
        else if constexpr (std::is_same_v<T, Array>)
            return Kind::Array;
        else if constexpr (std::is_same_v<T, Object>)
            return Kind::Object;
        else if constexpr (std::is_same_v<T, float>)
            return Kind::Float;
        else if constexpr (std::is_same_v<T, long>)
            return Kind::Long;
        else if constexpr (std::is_same_v<T, unsigned long>)
            return Kind::UnsignedLong;
        else
            static_assert(kAlwaysFalse<T>, "a JSON value cannot hold this type");
    }

    template <class T> T& payload() noexcept {
        if constexpr (std::is_same_v<T, Undefined>)
            return mUndefined;
        else if constexpr (std::is_same_v<T, Null>)
            return mNull;
        else if constexpr (std::is_same_v<T, bool>)
            return mBool;
        else if constexpr (std::is_same_v<T, double>)
            return mDouble;
        else if constexpr (std::is_same_v<T, std::string>)
            return mString;
        else if constexpr (std::is_same_v<T, Array>)
            return mArray;
        else if constexpr (std::is_same_v<T, Object>)
            return *mObject;
        else if constexpr (std::is_same_v<T, float>)
            return mFloat;
        else if constexpr (std::is_same_v<T, long>)
            return mLong;
        else
            return mUnsignedLong;
    }

    // Moves other's payload into this (which holds nothing) and leaves other Undefined.
    void takeFrom(Value& other) noexcept;
    // Destroys the payload; the value must then be re-initialised or be going away.
    void release() noexcept;

    union {
        Undefined mUndefined;
        Null mNull;
        bool mBool;
        double mDouble;
        float mFloat;
        long mLong;
        unsigned long mUnsignedLong;
        std::string mString;
        Array mArray;
        Object* mObject; // owned; never null while the kind is Object
    };
    Kind mKind;
};

inline void swap(Value& a, Value& b) noexcept {
    a.swap(b);
}

} // namespace foundation::json
