#include <workspace_browser/platform/ThreadName.hpp>

#include <gtest/gtest.h>

#include <thread>

using namespace foundation::core::diag;

TEST(ThreadName, NamesTheCallingThreadAndCutsAt15Bytes) {
    std::thread([] {
        setCurrentThreadName("wsViewModel");
        EXPECT_EQ(currentThreadName(), "wsViewModel");
        setCurrentThreadName("a-very-long-thread-name");
        EXPECT_EQ(currentThreadName(), "a-very-long-thr");
        // 14 ASCII bytes then a two-byte character: the character does not fit and is dropped.
        setCurrentThreadName("abcdefghijklmn\xC3\xA9z");
        EXPECT_EQ(currentThreadName(), "abcdefghijklmn");
    }).join();
}
