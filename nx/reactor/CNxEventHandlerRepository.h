// The table of a reactor's registrations, indexed by descriptor.
#pragma once

#include <nx/foundation/NxResult.h>
#include <nx/reactor/INxEventHandler.h>
#include <sys/select.h>

#include <cassert>
#include <cstddef>
#include <memory>

// One flat table, sized once from the limit of open descriptors. Belongs to the reactor's thread.
// Does not own the handlers.
class CNxEventHandlerRepository {
public:
    // One registration. Free exactly when the handler is null; the mask is then 0.
    struct CElement {
        INxEventHandler* m_handler = nullptr;
        long m_mask = 0;
    };

    // Makes the table, all free, as large as SetRlimit(RLIMIT_NOFILE, 8192) tells. NX_OK,
    // NX_ERROR_ALREADY_INITIALIZED when there is one, NX_ERROR_UNEXPECTED when the limit cannot be
    // had, NX_ERROR_FAILURE when there is no memory for it.
    [[nodiscard]] NxResult Open();

    // Frees the table. NX_OK.
    NxResult Close();

    bool IsOpen() const { return m_pHandlers != nullptr; }

    // The number of entries: descriptors from 0 to one below it have a place.
    int GetMaxHandler() const { return m_nMaxHandler; }

    // Whether the table is there and has a place for the descriptor.
    bool HasPlace(int fd) const { return m_pHandlers != nullptr && fd >= 0 && fd < m_nMaxHandler; }

    // Whether the descriptor has a place, and a handler in it.
    bool IsRegistered(int fd) const { return HasPlace(fd) && At(fd).m_handler != nullptr; }

    // The registration of a descriptor that has a place.
    CElement& At(int fd) {
        assert(HasPlace(fd));
        return m_pHandlers[static_cast<size_t>(fd)];
    }
    const CElement& At(int fd) const {
        assert(HasPlace(fd));
        return m_pHandlers[static_cast<size_t>(fd)];
    }

    // Lowers neither limit of the process. A server that wants more descriptors than 8192 calls it
    // before the reactor's Open, which takes the soft limit that it finds.
    // Raises the soft limit of a resource (getrlimit(2)) to `wanted`, and with it a hard limit
    // below that where the process may, else to the hard limit; tells in `actual` what it is then.
    // A soft limit of `wanted` or more stays. NX_OK; NX_ERROR_UNEXPECTED when the system calls fail
    // or the soft limit is infinite.
    [[nodiscard]] static NxResult SetRlimit(int resource, int wanted, int& actual);

    // Adds the descriptor of every handler, asked with GetHandle(), to the read set (input and
    // connect bits) and the write set (output bits). The exception set is not touched; places and
    // descriptors that an fd_set cannot hold (FD_SETSIZE) are passed over. Returns the largest
    // descriptor, -1 without any.
    int FillFdSets(fd_set& readSet, fd_set& writeSet, fd_set& exceptionSet) const;

private:
    struct CUnmap {
        void operator()(CElement* table) const;

        size_t m_bytes;
    };

    // Mapped without reserving memory: it costs some only where it is used. Containers are often
    // given a limit of a thousand million descriptors, and that table is larger than many machines.
    std::unique_ptr<CElement[], CUnmap> m_pHandlers;
    int m_nMaxHandler = 0;
};
