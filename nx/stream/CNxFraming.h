// How a stream of bytes is cut into messages.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <nx/buffer/CNxMessageChain.h>

// A plain value, cheap to copy while its delimiter is short.
class CNxFraming {
public:
    // No frames: the receiver is given all that is there, and takes what it can use.
    CNxFraming() = default;

    // Lines that end with "\n"; a "\r" before it belongs to the end. Frames come without the end.
    static CNxFraming Lines(size_t maxSize = 64UL << 10);

    // Frames that end with this text, at least one byte; they come without it.
    static CNxFraming Delimited(std::string_view delimiter, size_t maxSize = 64UL << 10);

    // Frames behind their length in `bytes` bytes, 1, 2, 4 or 8; they come without it. An empty
    // frame is a frame.
    static CNxFraming Prefixed(unsigned bytes, ENxByteOrder order = ENxByteOrder::BIG,
                               size_t maxSize = 16UL << 20);

    // NONE: no frames are asked for. PARTIAL: more has to come. FRAME: `frame` has been replaced
    // by the next one, taken from the front of `received`. TOO_LONG: the next frame is longer than
    // it may be; `received` is as it was.
    enum class EResult { NONE, PARTIAL, FRAME, TOO_LONG };

    // `searched` is the caller's to keep between calls, 0 at first and after each frame: how much
    // of `received` has no end in it, so that no byte is looked at twice. Throws std::bad_alloc
    // with nothing changed.
    [[nodiscard]] EResult Take(CNxMessageChain& received, CNxMessageChain& frame,
                               size_t& searched) const;

    bool HasFrames() const { return m_kind != EKind::NONE; }

    // Bytes that a frame and what belongs to it on the wire may have.
    size_t GetMaxSize() const { return m_maxSize; }

    // Puts a frame on the wire: the payload with its length before it or its end behind it.
    // NX_OK; NX_ERROR_INVALID_ARG, with nothing changed, for one that is longer than maxSize or
    // whose length does not fit. Throws std::bad_alloc.
    [[nodiscard]] NxResult Append(CNxMessageChain& wire, CNxMessageChain&& payload) const;

private:
    enum class EKind { NONE, LINES, DELIMITED, PREFIXED };

    EKind m_kind = EKind::NONE;
    ENxByteOrder m_order = ENxByteOrder::BIG;
    unsigned m_prefixBytes = 0;
    size_t m_maxSize = 0;
    std::string m_delimiter;
};
