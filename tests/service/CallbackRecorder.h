// Records what the library hands to application callbacks, from whatever
// thread it calls them on. Callbacks are plain function pointers, so each
// distinct callback is an instance of a template over an index.
#ifndef LUMORA_TESTS_SERVICE_CALLBACKRECORDER_H
#define LUMORA_TESTS_SERVICE_CALLBACKRECORDER_H

#include <lumora/lumora-api.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MainLoopThread.h"

namespace lumora::test {

/// One call of an application callback.
struct Delivery {
    int callback = 0;  // which callback (the template index)
    std::string subject;
    std::string data;
    void* userData = nullptr;
    std::thread::id thread;
};

class CallbackRecorder {
public:
    static CallbackRecorder& Instance() {
        static CallbackRecorder recorder;
        return recorder;
    }

    void Add(int callback, const char* subject, const char* data, void* userData) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_deliveries.push_back({callback, subject != nullptr ? subject : "<null>", data != nullptr ? data : "<null>",
                                userData, std::this_thread::get_id()});
    }
    std::vector<Delivery> All() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_deliveries;
    }
    size_t Count() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_deliveries.size();
    }
    /// Waits until at least count deliveries arrived (the main loop runs elsewhere).
    bool WaitForCount(size_t count, int timeoutMs) const {
        return WaitUntil([&] { return Count() >= count; }, timeoutMs);
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_deliveries.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Delivery> m_deliveries;
};

/// A distinct subject callback per N.
template <int N>
void Recorded(const char* subject, char* data, void* userData) {
    CallbackRecorder::Instance().Add(N, subject, data, userData);
}

/// A distinct typed-signal callback per N; the delivery's subject is the type
/// as a number.
template <int N>
void RecordedSignal(ContextSignalType type, char* data, void* userData) {
    CallbackRecorder::Instance().Add(N, std::to_string(static_cast<int>(type)).c_str(), data, userData);
}

/// A distinct channel callback per N; the delivery's subject is
/// "event:count".
template <int N>
void RecordedChannelEvent(LMF_EVENT_TYPE event, std::string data, int count, void* userData) {
    std::string what = std::to_string(static_cast<int>(event)) + ":" + std::to_string(count);
    CallbackRecorder::Instance().Add(N, what.c_str(), data.c_str(), userData);
}

/// A distinct availability callback per N; the delivery's subject is the
/// reason and its data "1" or "0".
template <int N>
void RecordedAvailability(int available, const char* reason, void* userData) {
    CallbackRecorder::Instance().Add(N, reason, available == 1 ? "1" : std::to_string(available).c_str(), userData);
}

}  // namespace lumora::test

#endif
