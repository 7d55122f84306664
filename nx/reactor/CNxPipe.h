// A connected pair of local stream sockets.
#pragma once

#include <nx/foundation/NxResult.h>

// Used by one thread at a time. Its owner closes it: the destructor does not.
class CNxPipe {
public:
    // Makes the pair, close-on-exec and above the standard streams, with socket buffers of `size`
    // bytes (at most 65535; the system may round). Opening an open pipe loses its handles: Close
    // comes first. NX_OK; NX_ERROR_NOT_AVAILABLE when there is no socket pair or a buffer cannot be
    // set. After a failure the pipe is closed.
    [[nodiscard]] NxResult Open(unsigned long size);

    // NX_OK, also when closed; NX_ERROR_FAILURE when a close fails. Closed in any case.
    NxResult Close();

    // -1 when closed.
    int GetReadHandle() const { return m_readHandle; }
    int GetWriteHandle() const { return m_writeHandle; }

private:
    int m_readHandle = -1;
    int m_writeHandle = -1;
};
