// kv_server without its network and its clock.
#pragma once

#include <kv_server/CommandRunner.h>
#include <tests/examples/TakeText.h>

#include <string>
#include <string_view>

struct LocalKvServer {
    // Has the input run as far as it goes, and gives the replies.
    std::string Answer(std::string_view input) {
        kv_server::Batch batch;
        m_reader.Take(input, batch);
        m_runner.Run(batch);
        return TakeText(batch.replies);
    }

    kv_server::KvStore m_store;
    kv_server::Stats m_stats;
    kv_server::CommandRunner m_runner{m_store, m_stats};
    kv_server::RequestReader m_reader;
};
