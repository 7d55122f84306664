// A descriptor number and what is done with any descriptor: non-blocking mode and ioctl(2).
#pragma once

// OWNS NOTHING: it neither opens nor closes, and copies name the same descriptor. The classes that
// own one are in nx/net/CNxSocket.h. Operations return -1 with errno when they fail, like the
// system calls.
class CNxIPCBase {
public:
    // The only option of Enable and Disable.
    enum : int { NON_BLOCK = 0 };

    CNxIPCBase() = default;
    explicit CNxIPCBase(int handle) : m_handle(handle) {}

    // -1 when there is no descriptor.
    int GetHandle() const { return m_handle; }

    // The descriptor of before is forgotten, not closed.
    void SetHandle(int handle) { m_handle = handle; }

    // Switches non-blocking mode on or off. 0, or -1: errno of fcntl(2), or EINVAL, with the
    // descriptor untouched, for another option than NON_BLOCK.
    [[nodiscard]] int Enable(int option) const;
    [[nodiscard]] int Disable(int option) const;

    // ioctl(descriptor, command, argument) and its result.
    [[nodiscard]] int Control(int command, void* argument) const;

private:
    int m_handle = -1;
};
