// Where batches wait for the thread that they come back to.
#pragma once

#include <kv_server/Request.h>

#include <memory>
#include <mutex>
#include <utility>

namespace kv_server {

// First in, first out. Needs no memory, so that no reply is lost for want of it. Any thread.
class BatchBox {
public:
    ~BatchBox() {
        // One by one: a long chain must not be destroyed recursively.
        while (Take() != nullptr) {
        }
    }

    // Whether it was empty.
    bool Put(std::unique_ptr<Batch> batch) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        Batch* const last = batch.get();
        const bool wasEmpty = m_first == nullptr;
        (wasEmpty ? m_first : m_last->following) = std::move(batch);
        m_last = last;
        return wasEmpty;
    }

    // Null when there is none.
    std::unique_ptr<Batch> Take() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        std::unique_ptr<Batch> batch = std::move(m_first);
        if (batch != nullptr) {
            m_first = std::move(batch->following);
        }
        return batch;
    }

private:
    std::mutex m_mutex;
    std::unique_ptr<Batch> m_first;
    Batch* m_last = nullptr;  // while there is a first
};

}  // namespace kv_server
