// Collects what a client sends until commands are complete.
#pragma once

#include <kv_server/Batch.h>
#include <kv_server/RequestParser.h>

#include <string_view>

namespace kv_server {

// Keeps the bytes of an incomplete command in one block, which grows with what has really come,
// never with what was announced.
class RequestReader {
public:
    // Takes received bytes. When they complete commands, puts these into `batch`, which must have
    // none left. What is wrong with the input goes to its `error`; what comes later is ignored.
    void Take(std::string_view received, Batch& batch);

private:
    void Keep(std::string_view bytes);
    void Grow(std::size_t size);

    RequestParser m_parser;
    ChainPtr m_partial;
};

}  // namespace kv_server
