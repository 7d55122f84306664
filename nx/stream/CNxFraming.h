// How a stream of bytes is cut into messages.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <nx/buffer/CNxMessageChain.h>
#include <nx/foundation/NxResult.h>

// A plain value, cheap to copy while its delimiter is short. Any thread may use one that nobody
// assigns to.
//
// `maxSize` counts the bytes of the frame itself, without its end or its length: a frame of exactly
// so many is good, one of more is TOO_LONG. With 0 there are empty frames only.
class CNxFraming {
public:
    // No frames: the receiver is given all that is there, and takes what it can use.
    CNxFraming() = default;

    // Lines that end with "\n" OR "\r\n", mixed as they come: what peers type, and what protocols
    // that ask for "\r\n" should take too. Only the "\r" right before a "\n" belongs to the end,
    // every other one to the line. Frames come without the end. They are put on the wire with "\n":
    // who must answer with "\r\n" appends a "\r" to the payload. Delimited("\r\n") takes nothing
    // but both.
    static CNxFraming Lines(size_t maxSize = 64UL << 10);

    // Frames that end with this text; they come without it. For an empty text there are no frames:
    // HasFrames() is false.
    static CNxFraming Delimited(std::string_view delimiter, size_t maxSize = 64UL << 10);

    // Frames behind their length in `bytes` bytes, 1, 2, 4 or 8; they come without it. The length
    // counts what follows it, and an empty frame is a frame. For any other number of bytes there
    // are no frames: HasFrames() is false.
    static CNxFraming Prefixed(unsigned bytes, ENxByteOrder order = ENxByteOrder::BIG,
                               size_t maxSize = 16UL << 20);

    // NONE: no frames are asked for. PARTIAL: more has to come. FRAME: `frame` has been replaced
    // by the next one, taken from the front of `received`. TOO_LONG: the next frame is longer than
    // it may be, which is said as soon as it is certain; `received` is as it was.
    enum class EResult { NONE, PARTIAL, FRAME, TOO_LONG };

    // `searched` is the caller's to keep between calls, 0 at first and whenever the framing or the
    // front of `received` has changed otherwise; set to 0 with each frame. It is how much of
    // `received` no end begins in, so that no byte is looked at twice. Throws std::bad_alloc with
    // nothing changed. `frame` may share storage with `received`.
    [[nodiscard]] EResult Take(CNxMessageChain& received, CNxMessageChain& frame,
                               size_t& searched) const;

    bool HasFrames() const { return m_kind != EKind::NONE; }

    // Bytes that a frame and what belongs to it on the wire may have, so many must fit into
    // `received`; the largest number if there are more. 0 without frames.
    size_t GetMaxSize() const;

    // Puts a frame on the wire: the payload with its length before it or its end behind it; as it
    // is without frames. A payload that has the end in it arrives as two: it is not searched.
    // NX_OK; NX_ERROR_INVALID_ARG, with nothing changed, for one that is longer than maxSize or
    // whose length does not fit. Throws std::bad_alloc with nothing changed.
    [[nodiscard]] NxResult Append(CNxMessageChain& wire, CNxMessageChain&& payload) const;

private:
    enum class EKind { NONE, LINES, DELIMITED, PREFIXED };

    EResult TakePrefixed(CNxMessageChain& received, CNxMessageChain& frame) const;
    EResult TakeDelimited(CNxMessageChain& received, CNxMessageChain& frame,
                          size_t& searched) const;
    size_t GetSizeOfLine(const CNxMessageChain& received, size_t end) const;
    size_t GetFramingSize() const;

    EKind m_kind = EKind::NONE;
    ENxByteOrder m_order = ENxByteOrder::BIG;
    unsigned m_prefixBytes = 0;
    size_t m_maxSize = 0;
    std::string m_delimiter;
};
