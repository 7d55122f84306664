// One client's connection: its commands to the store, the replies back to it.
#pragma once

#include <kv_server/Batch.h>
#include <kv_server/RequestReader.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/INxReactor.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace kv_server {

// What a client needs of its server. Outlives it.
class IClientOwner {
public:
    // Has the store run the batch; it comes back by Client::OnReplies.
    virtual void Submit(std::unique_ptr<Batch> batch) = 0;

    // Has the reactor call Continue when others have had their turn.
    virtual void ContinueLater(std::uint64_t clientId) = 0;

    // The reactor has dropped the client, which is to be destroyed.
    virtual void OnDropped(std::uint64_t clientId) = 0;

    // Seconds from any start, as of the last tick.
    virtual std::int64_t GetSeconds() const = 0;

protected:
    ~IClientOwner() = default;
};

// Walks in a circle: receive, submit, wait for the replies, send. At most one batch is on its way,
// and nothing is received meanwhile or while too many replies wait: the client then feels it in its
// own sends. Since a reactor may report changes only, the client remembers what is still to be
// done, and Continue does all of it that can be done now.
//
// A connection ends when all is answered that was asked: it is shut down for sending, and what the
// client still sends is thrown away until it hangs up too. Closing at once would make the system
// discard replies on their way.
//
// Belongs to the network thread. Whoever gets false from an operation destroys the client.
class Client : public INxEventHandler {
public:
    // Takes over the connected, non-blocking socket.
    Client(std::uint64_t id, int socket, INxReactor& reactor, IClientOwner& owner);
    ~Client() override;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Begins to take commands. False when the reactor cannot watch the socket.
    bool Open();

    // Only tells the client why it is not served. `error` is a whole error reply's text.
    bool Refuse(std::string_view error);

    bool Continue();
    bool OnReplies(std::unique_ptr<Batch> batch);

    // Answers what has arrived by now, and ends.
    bool Stop();

    // Whether the connection may be closed without loss, while it ends.
    bool IsDone() const { return m_lingering && IsDelivered(); }

    std::uint64_t GetId() const { return m_id; }
    bool IsRefused() const { return m_refused; }
    bool IsLingering() const { return m_lingering; }

    // When the client last sent or took something, or began to end; in the owner's seconds.
    std::int64_t GetActiveAt() const { return m_activeAt; }

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override;
    int OnOutput(int fd) override;
    int OnClose(int fd, long mask) override;

private:
    bool Flush();
    bool Proceed();
    bool Watch();
    void NoteSlowness();
    bool Receive();
    bool ReceiveNothing(long result);
    void CountLastInput(std::size_t size);
    bool End();
    bool Discard();
    bool IsDelivered() const;

    const std::uint64_t m_id;
    INxReactor& m_reactor;
    IClientOwner& m_owner;
    CNxSocketBase m_socket;
    long m_watched = 0;  // the events that it is registered for

    RequestReader m_reader;
    std::unique_ptr<Batch> m_batch;  // null while the store has it
    BlockChain m_output;
    std::int64_t m_activeAt;

    bool m_readable = false;      // there may be something to receive
    bool m_waitsForRoom = false;  // the socket is full
    bool m_slow = false;          // too many replies wait
    bool m_inputEnded = false;    // the client has hung up its side
    bool m_ending = false;        // no more input is taken
    bool m_lingering = false;     // all is sent
    bool m_stopping = false;
    bool m_refused = false;
    std::size_t m_lastInput;  // what is still received after Stop
};

}  // namespace kv_server
