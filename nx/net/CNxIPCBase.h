// A descriptor number and what is done with any descriptor: non-blocking mode and ioctl(2).
#pragma once

// Owns nothing: it neither opens nor closes. Copies name the same descriptor. Operations answer
// like the system calls, -1 with errno.
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
    int Enable(int option) const;
    int Disable(int option) const;

    // ioctl(descriptor, command, argument) and its result.
    int Control(int command, void* argument) const;

private:
    int m_handle = -1;
};
