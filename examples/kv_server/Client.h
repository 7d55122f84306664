// One client's connection: its commands to the store, the replies back to it.
#pragma once

#include <kv_server/Request.h>
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
    // Has the store run the batch; it comes back by Client::OnReplies. False when that cannot be
    // had: the batch is gone, and the client is to be let go.
    [[nodiscard]] virtual bool Submit(std::unique_ptr<Batch> batch) = 0;

    // Has the reactor call Continue when others have had their turn. False when that cannot be had.
    [[nodiscard]] virtual bool ContinueLater(std::uint64_t clientId) = 0;

    // A client that held so many bytes of memory holds so many now.
    virtual void CountHeld(std::size_t before, std::size_t now) = 0;

    // Whether the clients hold more than they may: none takes more before some were let go.
    virtual bool IsFull() const = 0;

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
    // Takes over the connected, non-blocking socket, unless it throws std::bad_alloc.
    Client(std::uint64_t id, int socket, INxReactor& reactor, IClientOwner& owner);
    ~Client() override;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // One of the two comes first. Open begins to take commands; Refuse only tells the client why it
    // is not served, `error` being a whole error reply's text. False when the client is gone or the
    // reactor cannot watch the socket.
    [[nodiscard]] bool Open();
    [[nodiscard]] bool Refuse(std::string_view error);

    [[nodiscard]] bool Continue();
    [[nodiscard]] bool OnReplies(std::unique_ptr<Batch> batch);

    // The server stops: answers what has arrived by now, and ends.
    [[nodiscard]] bool Stop();

    // A tick of the owner's clock: notes whether it was active since the last one, and tries again
    // what the system had no buffers for.
    [[nodiscard]] bool OnTick();

    // Whether nothing is to be done for it now: it neither waits for the store nor is there
    // anything to receive or room to send that it has not been told of, as after a pause of the
    // whole process.
    bool IsIdle() const;

    // Bytes of memory for its commands and replies, as of its last step. A large value counts in
    // full, though it may be shared with the store: replaced there, it is the client's alone.
    std::size_t GetHeld() const { return m_held; }

    bool IsLingering() const { return m_state == EState::LINGERING; }

    // Whether it lingers and the client's system has acknowledged every byte: it may be closed
    // without loss.
    bool IsDone() const;

    std::uint64_t GetId() const { return m_id; }

    // The tick after the client last sent or took something, or began to linger; in the owner's
    // seconds. Not the tick before: that one can be long ago when the process was paused.
    std::int64_t GetActiveAt() const { return m_activeAt; }

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override;
    int OnOutput(int fd) override;
    int OnClose(int fd, long mask) override;

private:
    // In the order of a life, in which only READABLE goes back; MayFollow has the ways.
    enum class EState {
        WAITING,    // takes commands; there is nothing to receive
        READABLE,   // takes commands; there may be something to receive
        STOPPING,   // takes what has arrived, and no more than c_lastInput bytes of it
        ENDING,     // takes no more; what was asked is answered
        HUNG_UP,    // the same, and the client has hung up its side: nothing to linger for
        LINGERING,  // all is sent; what still comes is thrown away
    };

    static bool MayFollow(EState state, EState next);
    void Enter(EState next);
    bool IsTaking() const { return m_state < EState::ENDING; }
    bool IsReceiving() const;
    bool IsSlow() const { return m_output.GetSize() >= c_maxWaiting; }

    // They return whether the connection goes on.
    bool Proceed();
    bool Flush();
    bool Receive();
    bool ReceiveNothing(long result);
    bool Submit();
    void CountHeld();
    bool End();
    bool Discard();
    bool Watch();

    void CountLastInput(std::size_t size);

    const std::uint64_t m_id;
    INxReactor& m_reactor;
    IClientOwner& m_owner;
    CNxSocketBase m_socket;
    long m_watched = 0;  // the mask that it is registered with

    RequestReader m_reader;
    std::unique_ptr<Batch> m_batch;  // null while the store has it
    examples::BlockChain m_output;   // after a Flush: what waits for room in the socket
    std::int64_t m_activeAt;

    EState m_state = EState::WAITING;
    std::size_t m_lastInput;   // bytes still received while STOPPING
    bool m_isActive = false;   // since the last tick
    bool m_isStarved = false;  // goes on at the next tick
    std::size_t m_held = 0;
    std::size_t m_submitted = 0;  // bytes held by the batch that the store has
};

}  // namespace kv_server
