// One client: its requests one after the other, answered with files.
#pragma once

#include <http_server/Files.h>
#include <http_server/RequestReader.h>
#include <nx/stream/CNxConnection.h>
#include <nx/timer/CNxTimedCall.h>

#include <cstdint>
#include <string>

namespace http_server {

// GET and HEAD with conditions and one range (RFC 9110, sections 13 and 14); several ranges are
// answered with the whole file. Pipelined requests are answered in their order, as far as the
// client takes the answers.
class Session : public INxConnectionSink {
public:
    // What of answers may wait for the client, files not counted, before its requests do.
    static constexpr std::size_t c_highWater = 16384;
    static constexpr CNxTimeValue c_requestTimeout{30, 0};

    explicit Session(const Files& files) : m_files(files) {}

    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override;
    void OnLowWater(CNxConnection& connection) override { connection.ResumeReading(); }

private:
    // The part of a file that is asked for.
    struct Part {
        std::uint64_t offset = 0;
        std::uint64_t size = 0;
    };
    enum class ERange { NONE, PART, UNSATISFIABLE };

    void Answer(CNxConnection& connection);
    void SendFile(CNxConnection& connection, File& file, std::string_view type);
    void SendError(CNxConnection& connection, int status, std::string_view header = {});
    void EndBadly(CNxConnection& connection, int status);

    bool IsUnchanged(const File& file, const std::string& tag) const;
    ERange FindRange(const File& file, const std::string& tag, Part& part) const;

    void BeginHead(int status);
    void EndHead(CNxConnection& connection);
    void AddHeader(std::string_view name, std::string_view value);
    void RestLater(CNxConnection& connection);
    void WaitForRest(CNxConnection& connection);
    static void Check(CNxConnection& connection, NxResult result);

    const Files& m_files;
    RequestReader m_reader;
    CNxTimedCall m_timeout;
    bool m_isLast = false;
    // Of the answer that is made; they keep their memory.
    std::string m_path;
    std::string m_head;
};

}  // namespace http_server
