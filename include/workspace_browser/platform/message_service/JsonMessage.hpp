#pragma once

#include <cstddef>
#include <string_view>

namespace connector::message_service {

// A view of one message's JSON text; does not own it, so the text must outlive the view.
// Immutable after construction, thus safe to share between threads.
class JsonMessage {
public:
    JsonMessage() = default;
    JsonMessage(const char* data, std::size_t size) : mData(data), mSize(data ? size : 0) {}
    explicit JsonMessage(std::string_view text) : mData(text.data()), mSize(text.size()) {}

    const char* data() const { return mData; }
    std::size_t size() const { return mSize; }
    std::string_view text() const {
        return mData ? std::string_view(mData, mSize) : std::string_view();
    }

private:
    const char* mData = nullptr;
    std::size_t mSize = 0;
};

} // namespace connector::message_service
