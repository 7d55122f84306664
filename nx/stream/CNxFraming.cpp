#include <nx/stream/CNxFraming.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <utility>

CNxFraming CNxFraming::Lines(size_t maxSize) {
    CNxFraming framing;
    framing.m_kind = EKind::LINES;
    framing.m_delimiter = "\n";
    framing.m_maxSize = maxSize;
    return framing;
}

CNxFraming CNxFraming::Delimited(std::string_view delimiter, size_t maxSize) {
    CNxFraming framing;
    if (!delimiter.empty()) {
        framing.m_kind = EKind::DELIMITED;
        framing.m_delimiter = delimiter;
        framing.m_maxSize = maxSize;
    }
    return framing;
}

CNxFraming CNxFraming::Prefixed(unsigned bytes, ENxByteOrder order, size_t maxSize) {
    CNxFraming framing;
    if (bytes == 1 || bytes == 2 || bytes == 4 || bytes == 8) {
        framing.m_kind = EKind::PREFIXED;
        framing.m_order = order;
        framing.m_prefixBytes = bytes;
        framing.m_maxSize = maxSize;
    }
    return framing;
}

// What a frame has beside its bytes, at most.
size_t CNxFraming::GetFramingSize() const {
    const size_t carriageReturn = m_kind == EKind::LINES ? 1 : 0;
    return m_prefixBytes + m_delimiter.size() + carriageReturn;
}

size_t CNxFraming::GetMaxSize() const {
    return m_maxSize + std::min(GetFramingSize(), ~m_maxSize);
}

CNxFraming::EResult CNxFraming::Take(CNxMessageChain& received, CNxMessageChain& frame,
                                     size_t& searched) const {
    EResult result = EResult::NONE;
    if (m_kind == EKind::PREFIXED) {
        result = TakePrefixed(received, frame);
    } else if (m_kind != EKind::NONE) {
        result = TakeDelimited(received, frame, searched);
    }
    if (result == EResult::FRAME) {
        searched = 0;
    }
    return result;
}

CNxFraming::EResult CNxFraming::TakePrefixed(CNxMessageChain& received,
                                             CNxMessageChain& frame) const {
    std::uint64_t size = 0;
    if (!received.PeekIntegerOf(m_prefixBytes, size, 0, m_order)) {
        return EResult::PARTIAL;
    }
    if (size > m_maxSize) {
        return EResult::TOO_LONG;
    }
    if (size > received.GetSize() - m_prefixBytes) {
        return EResult::PARTIAL;
    }
    CNxMessageChain whole = received.Split(m_prefixBytes + size);
    whole.Consume(m_prefixBytes);
    frame = std::move(whole);
    return EResult::FRAME;
}

CNxFraming::EResult CNxFraming::TakeDelimited(CNxMessageChain& received, CNxMessageChain& frame,
                                              size_t& searched) const {
    const size_t end = received.Find(m_delimiter, searched);
    if (end == CNxMessageChain::c_notFound) {
        // An end may have begun.
        const size_t size = received.GetSize();
        searched = size - std::min(size, m_delimiter.size() - 1);
        return GetSizeOfLine(received, searched) > m_maxSize ? EResult::TOO_LONG : EResult::PARTIAL;
    }
    const size_t size = GetSizeOfLine(received, end);
    if (size > m_maxSize) {
        return EResult::TOO_LONG;
    }
    CNxMessageChain next = received.Split(size);
    received.Consume(end - size + m_delimiter.size());
    frame = std::move(next);
    return EResult::FRAME;
}

// Of the bytes up to the end, how many belong to the frame.
size_t CNxFraming::GetSizeOfLine(const CNxMessageChain& received, size_t end) const {
    char last = 0;
    const bool endsWithReturn =
        m_kind == EKind::LINES && end != 0 && received.Peek(last, end - 1) && last == '\r';
    return endsWithReturn ? end - 1 : end;
}

NxResult CNxFraming::Append(CNxMessageChain& wire, CNxMessageChain&& payload) const {
    const size_t size = payload.GetSize();
    if (m_kind != EKind::NONE && size > m_maxSize) {
        return NX_ERROR_INVALID_ARG;
    }
    if (m_kind == EKind::PREFIXED) {
        if (m_prefixBytes < sizeof(size) && size >> (8 * m_prefixBytes) != 0) {
            return NX_ERROR_INVALID_ARG;
        }
        wire.AppendIntegerOf(m_prefixBytes, size, m_order);
    }
    payload.Append(m_delimiter);
    wire.Append(std::move(payload));
    return NX_OK;
}
