// People who talk, line by line: chat_server [ENDPOINT [LOOPS]]. Try it with netcat:
//
//     /nick NAME   /join ROOM   /quit     anything else is said to everybody in the room
#include <nx/nx.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace {

// Who is in which room. Any thread may call any operation.
class Chat {
public:
    // False when somebody there has the name. From here on until Leave the connection is sent what
    // is told to the room.
    bool Enter(const std::string& room, const std::string& name, CNxConnection& connection) {
        const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        return m_guests.emplace(std::pair(room, name), &connection).second;
    }

    void Leave(const std::string& room, const std::string& name) {
        const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        m_guests.erase({room, name});
    }

    // One payload for all, and all get what is told in the same order.
    void Tell(const std::string& room, const std::string& text) {
        const CNxMessageChain payload(text + "\n");
        const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        for (auto at = m_guests.lower_bound({room, ""});
             at != m_guests.end() && at->first.first == room; ++at) {
            at->second->SendShared(payload);
        }
    }

private:
    CNxMutexThread m_mutex;
    // By room and name.
    std::map<std::pair<std::string, std::string>, CNxConnection*> m_guests NX_GUARDED_BY(m_mutex);
};

bool IsWord(const std::string& text) {
    return !text.empty() && text.size() <= 20 && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
    });
}

class Guest : public INxConnectionSink {
public:
    explicit Guest(Chat& chat) : m_chat(chat) {}

    void OnOpen(CNxConnection& connection) override {
        static std::atomic<unsigned> s_guests;
        while (m_room.empty()) {
            Move(connection, "lobby", "guest-" + std::to_string(++s_guests));
        }
    }

    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        std::string line = received.ToString();
        // Nobody's terminal is to obey another's.
        std::replace_if(
            line.begin(), line.end(), [](char c) { return c >= 0 && c < ' '; }, ' ');
        const size_t end = std::min(line.find(' '), line.size());
        const std::string command = line.substr(0, end);
        const std::string argument = line.substr(std::min(end + 1, line.size()));
        if (command == "/nick") {
            Move(connection, m_room, argument);
        } else if (command == "/join") {
            Move(connection, argument, m_name);
        } else if (command == "/quit") {
            connection.CloseWhenSent();
        } else if (!command.empty() && command[0] == '/') {
            connection.SendFrame("* /nick NAME, /join ROOM, /quit");
        } else {
            m_chat.Tell(m_room, m_name + ": " + line);
        }
    }

    void OnTooLong(CNxConnection& connection) override {
        connection.SendFrame("* lines have up to 1000 bytes");
        connection.CloseWhenSent();
    }

    void OnStop(CNxConnection& connection) override {
        m_isStopping = true;
        connection.SendFrame("* the server stops");
        connection.CloseWhenSent();
    }

    void OnClosed(CNxConnection& connection, const CNxCloseReason& reason) override {
        if (!m_isStopping && reason.kind != ENxClosed::BY_US && reason.kind != ENxClosed::BY_PEER) {
            std::fprintf(stderr, "%s (%s): %s\n", m_name.c_str(),
                         connection.GetPeerEndpoint().GetText().c_str(), reason.text.c_str());
        }
        if (!m_room.empty()) {
            m_chat.Leave(m_room, m_name);
            if (!m_isStopping) {
                m_chat.Tell(m_room, "* " + m_name + " has left");
            }
        }
    }

private:
    // Afterwards `room` and `name` are those of before.
    void Move(CNxConnection& connection, std::string room, std::string name) {
        if (!IsWord(room) || !IsWord(name)) {
            connection.SendFrame("* names have up to 20 letters, digits, - and _");
        } else if (!m_chat.Enter(room, name, connection)) {
            connection.SendFrame("* there is a " + name + " in " + room);
        } else {
            std::swap(m_room, room);
            std::swap(m_name, name);
            m_chat.Leave(room, name);
            if (m_room != room) {
                m_chat.Tell(room, "* " + name + " has left");
                m_chat.Tell(m_room, "* " + m_name + " is here");
            } else {
                m_chat.Tell(m_room, "* " + name + " is now " + m_name);
            }
        }
    }

    Chat& m_chat;
    std::string m_name;
    std::string m_room;
    bool m_isStopping = false;
};

}  // namespace

int main(int argc, char** argv) {
    CNxOwnLines::Send(CNxOwnLines::NOWHERE);
    Chat chat;
    CNxServerOptions process;
    process.loops.loops = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : 1;
    CNxServer server(argc, argv, process);
    CNxListenOptions options;
    options.connection.framing = CNxFraming::Lines(1000);
    options.connection.maxUnsent = 1UL << 20;  // Who does not read is dropped.
    server.Listen(
        argc > 1 ? argv[1] : "127.0.0.1:0", [&chat] { return std::make_unique<Guest>(chat); },
        options);
    server.Announce();
    return server.Run();
}
