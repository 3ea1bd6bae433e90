// The heartbeat queue: blocks come out in order, as copies, one owned by the
// consumer at a time; size lines mark each new thousand; a producer and a
// consumer on two threads lose nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/CNewQuillonFifo.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"

namespace {

struct Lines {
    std::mutex lock;
    std::vector<std::wstring> texts;

    static void Hook(const wchar_t* text, void* context) {
        Lines* self = static_cast<Lines*>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        self->texts.push_back(text);
    }
    std::vector<std::wstring> Containing(const wchar_t* part) {
        std::lock_guard<std::mutex> guard(lock);
        std::vector<std::wstring> found;
        for (const auto& t : texts)
            if (t.find(part) != std::wstring::npos) found.push_back(t);
        return found;
    }
};

std::string Text(const BYTE* data, int len) {
    return std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(len));
}

int Add(CNewQuillonFifo& fifo, const std::string& s) {
    return fifo.AddFifo(reinterpret_cast<const BYTE*>(s.data()), static_cast<int>(s.size()));
}

TEST(QuillonFifo, BlocksComeOutInOrderAsCopies) {
    CNewQuillonFifo fifo;
    int len = -7;
    EXPECT_EQ(nullptr, fifo.GetFifo(len));
    EXPECT_EQ(-7, len) << "an empty queue leaves the length alone";

    char first[] = "first block";
    EXPECT_EQ(1, fifo.AddFifo(reinterpret_cast<BYTE*>(first), 11));
    first[0] = 'X';  // the queue holds its own copy
    EXPECT_EQ(2, Add(fifo, "second"));
    EXPECT_EQ(3, Add(fifo, "3"));
    EXPECT_EQ(3, fifo.GetSize());
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), KvnWaitForSingleObject(fifo.GetEventNotEmpty(), 0));

    const BYTE* a = fifo.GetFifo(len);
    ASSERT_NE(nullptr, a);
    EXPECT_EQ("first block", Text(a, len));
    EXPECT_EQ(2, fifo.GetSize());
    const BYTE* b = fifo.GetFifo(len);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ("second", Text(b, len));
    // The block handed out last stays valid until the next GetFifo.
    EXPECT_EQ("second", Text(b, len));
    const BYTE* c = fifo.GetFifo(len);
    ASSERT_NE(nullptr, c);
    EXPECT_EQ("3", Text(c, len));
    EXPECT_EQ(nullptr, fifo.GetFifo(len));
    EXPECT_EQ(0, fifo.GetSize());

    // The queue works again after it ran empty.
    EXPECT_EQ(1, Add(fifo, "again"));
    ASSERT_NE(nullptr, c = fifo.GetFifo(len));
    EXPECT_EQ("again", Text(c, len));
}

TEST(QuillonFifo, NothingIsQueuedForANullPointerOrAnEmptyCount) {
    CNewQuillonFifo fifo;
    const BYTE byte = 1;
    EXPECT_EQ(0, fifo.AddFifo(nullptr, 4));
    EXPECT_EQ(0, fifo.AddFifo(&byte, 0));
    EXPECT_EQ(0, fifo.AddFifo(&byte, -3));
    EXPECT_EQ(0, fifo.GetSize());
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), KvnWaitForSingleObject(fifo.GetEventNotEmpty(), 0));
}

TEST(QuillonFifo, ResetEmptiesTheQueueAndTheBlockHandedOut) {
    CNewQuillonFifo fifo;
    for (int i = 0; i < 5; ++i) Add(fifo, "block " + std::to_string(i));
    int len = 0;
    ASSERT_NE(nullptr, fifo.GetFifo(len));
    fifo.ResetFifo();
    EXPECT_EQ(0, fifo.GetSize());
    EXPECT_EQ(nullptr, fifo.GetFifo(len));
    EXPECT_EQ(1, Add(fifo, "after"));
    const BYTE* p = fifo.GetFifo(len);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ("after", Text(p, len));
    // Destroyed with blocks still queued: the sanitizer builds see no leak.
    Add(fifo, "left");
    Add(fifo, "behind");
}

TEST(QuillonFifo, ASizeLineMarksEachNewThousand) {
    Lines lines;
    KvnSetDebugOutputHook(&Lines::Hook, &lines);
    {
        CNewQuillonFifo fifo;
        const BYTE block[16] = {};
        for (int i = 0; i < 999; ++i) fifo.AddFifo(block, 16);
        EXPECT_TRUE(lines.Containing(L"element dans le fifo").empty());
        fifo.AddFifo(block, 16);
        ASSERT_EQ(1u, lines.Containing(L"element dans le fifo").size());
        EXPECT_EQ(L"\r\n 1000 element dans le fifo  ", lines.Containing(L"element dans le fifo")[0]);

        for (int i = 0; i < 1000; ++i) fifo.AddFifo(block, 16);
        ASSERT_EQ(2u, lines.Containing(L"element dans le fifo").size());
        EXPECT_EQ(L"\r\n 2000 element dans le fifo  ", lines.Containing(L"element dans le fifo")[1]);

        // The threshold never comes down: draining to 500 and climbing back
        // to 2999 writes nothing more.
        int len = 0;
        for (int i = 0; i < 1500; ++i) fifo.GetFifo(len);
        for (int i = 0; i < 2499; ++i) fifo.AddFifo(block, 16);
        EXPECT_EQ(2999, fifo.GetSize());
        EXPECT_EQ(2u, lines.Containing(L"element dans le fifo").size());
        fifo.AddFifo(block, 16);
        EXPECT_EQ(3u, lines.Containing(L"element dans le fifo").size());
    }
    KvnSetDebugOutputHook(nullptr, nullptr);
}

TEST(QuillonFifo, AProducerAndAConsumerOnTwoThreadsLoseNothing) {
    CNewQuillonFifo fifo;
    const int count = 20000;
    std::thread producer([&] {
        for (int i = 0; i < count; ++i) {
            int value = i;
            fifo.AddFifo(reinterpret_cast<const BYTE*>(&value), sizeof value);
        }
    });
    int expected = 0;
    while (expected < count) {
        int len = 0;
        const BYTE* p = fifo.GetFifo(len);
        if (p == nullptr) {
            // Waits for the producer instead of spinning.
            KvnWaitForSingleObject(fifo.GetEventNotEmpty(), 100);
            continue;
        }
        ASSERT_EQ(static_cast<int>(sizeof(int)), len);
        int value = 0;
        std::memcpy(&value, p, sizeof value);
        ASSERT_EQ(expected, value);
        ++expected;
    }
    producer.join();
    EXPECT_EQ(0, fifo.GetSize());
}

}  // namespace
