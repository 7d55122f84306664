// Chains of blocks: random operations on several of them, each against a plain string, and their
// storage shared between them. Framing against what the bytes that have come say by themselves.
#include <nx/buffer/CNxMessageChain.h>
#include <nx/stream/CNxFraming.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "Fuzz.h"

namespace {

struct CModelled {
    CNxMessageChain chain;
    std::string model;
};

class CWorld {
public:
    explicit CWorld(std::string_view input) : m_input{input} {}

    void Run() {
        while (!m_input.m_left.empty()) {
            const unsigned what = m_input.TakeByte();
            CModelled& one = m_chains[what % m_chains.size()];
            CModelled& other = m_chains[m_input.TakeByte() % m_chains.size()];
            Change(what / m_chains.size(), one, other);
            Look(one);
            // A writer into shared bytes shows in the others.
            for (const CModelled& each : m_chains) {
                Require(each.chain.ToString() == each.model);
            }
            if (one.model.size() > c_most) {
                one = {};
            }
        }
    }

private:
    static constexpr size_t c_most = 20000;

    // Mostly a few, now and then more than a block has; of few kinds, so that texts are nearly
    // found often.
    std::string TakeBytes() {
        const size_t size = m_input.TakeByte();
        std::string bytes(size < 192 ? size : (size - 191) * 100, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>('a' + (m_next = m_next * 5 + 1) / 1024 % 3);
        }
        return bytes;
    }

    size_t TakePlace(const CModelled& one) {
        const size_t place = m_input.TakeByte() << 8 | m_input.TakeByte();
        return one.model.empty() ? place % 4 : place % (one.model.size() + 2);
    }

    void Change(unsigned operation, CModelled& one, CModelled& other) {
        static const std::string s_memory(6400, 'c');
        const size_t count = TakePlace(one);
        const size_t from = std::min(TakePlace(one), one.model.size());
        const std::string bytes = TakeBytes();
        const size_t filled = count % 2 * bytes.size();
        const std::string_view front = one.chain.GetFront().substr(0, 1000);
        CNxDataBlock* data = nullptr;
        switch (operation % 11) {
            case 0:
                // The chain's own among them.
                one.model.append(bytes).append(front).append(bytes);
                return one.chain.Append({bytes, front, bytes});
            case 1:
                bytes.copy(one.chain.MakeSpace(bytes.size()), bytes.size());
                Require(one.chain.GetSpaceSize() >= std::max<size_t>(bytes.size(), 1));
                one.model.append(bytes, 0, filled);
                return one.chain.Commit(filled);
            case 2:
                one.model.append(s_memory, 0, bytes.size());
                return one.chain.AppendAdopted(s_memory.data(), bytes.size(), nullptr, nullptr);
            case 3:
                if (CNxDataBlock::CreateInstance(data, bytes.size(), bytes.data()) == NX_OK) {
                    one.chain.Append(data);
                    one.model += bytes;
                    data->ReleaseReference();
                }
                return;
            case 4:
                one.chain.Append(std::move(other.chain));
                one.model += &one == &other ? "" : std::exchange(other.model, {});
                return;
            case 5:
                other.chain = std::move(one.chain);
                other.model = std::exchange(one.model, {});
                return;
            case 6:
                one.chain = CNxMessageChain::Adopt(one.chain.Release());
                return;
            case 7:
                one.model.erase(0, count);
                return one.chain.Consume(count);
            case 8:
                return Require(one.chain.Flatten(count) == one.model.substr(0, count));
            case 9:
                other = CModelled{one.chain.Share(from, count), one.model.substr(from, count)};
                return;
            default:
                CModelled split{one.chain.Split(count), one.model.substr(0, count)};
                one.model.erase(0, count);
                other = std::move(split);
        }
    }

    void Look(const CModelled& one) {
        const std::string& model = one.model;
        Require(one.chain.GetSize() == model.size() && one.chain.IsEmpty() == model.empty());
        const size_t from = std::min(TakePlace(one), model.size());
        const std::string text = model.substr(from, m_input.TakeByte() % 8) + "b";
        const size_t size = text.size() - m_input.TakeByte() % 2;
        const size_t before = TakePlace(one);
        Require(one.chain.Find(text.substr(0, size), before) ==
                model.find(text.substr(0, size), before));
        Require(one.chain.Find('b', before) == model.find('b', before));

        char copy[300];
        const size_t copied = one.chain.Copy(copy, sizeof(copy), from);
        Require(std::string_view(copy, copied) == model.substr(from, sizeof(copy)));

        iovec pieces[4];
        std::string described;
        for (size_t i = 0, n = one.chain.FillIov(pieces, 4); i < n; ++i) {
            described.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
        }
        Require(model.compare(0, described.size(), described) == 0);
        const std::string_view front = one.chain.GetFront();
        Require(front.empty() == model.empty() && model.compare(0, front.size(), front) == 0);
    }

    CFuzzBytes m_input;
    unsigned m_next = 1;
    std::array<CModelled, 4> m_chains;
};

// What stands at the front of bytes.
struct CNext {
    bool isTooLong = false;
    bool isThere = false;
    std::string_view frame;
    size_t size = 0;  // with what belongs to it on the wire
};

CNext FindDelimited(std::string_view bytes, std::string_view delimiter, bool areLines,
                    size_t most) {
    const size_t end = bytes.find(delimiter);
    // A part of the delimiter may be there already.
    size_t known = std::min(end, bytes.size() - std::min(bytes.size(), delimiter.size() - 1));
    known -= areLines && known != 0 && bytes[known - 1] == '\r' ? 1 : 0;
    return {known > most, end != std::string_view::npos, bytes.substr(0, known),
            end + delimiter.size()};
}

CNext FindPrefixed(std::string_view bytes, unsigned width, bool isBig, size_t most) {
    if (bytes.size() < width) {
        return {};
    }
    std::uint64_t size = 0;
    for (unsigned i = 0; i < width; ++i) {
        size = size << 8 | static_cast<unsigned char>(bytes[isBig ? i : width - 1 - i]);
    }
    return {size > most, size <= bytes.size() - width, bytes.substr(width, size), width + size};
}

// After each piece that has come, what is found is what stands there.
void FuzzFraming(unsigned how, size_t pieceSize, std::string_view bytes) {
    const size_t most = how / 16 % 16 == 15 ? SIZE_MAX : how / 16 % 16 * 3;
    const bool isBig = how % 8 < 4;
    const unsigned width = 1U << how % 4;
    const bool areLines = how % 16 == 15;
    const bool isPrefixed = how % 16 < 8;
    const std::string_view delimiter = areLines ? "\n" : isBig ? "--" : "ab-a";
    const auto order = isBig ? ENxByteOrder::BIG : ENxByteOrder::LITTLE;
    const CNxFraming framing = isPrefixed ? CNxFraming::Prefixed(width, order, most)
                               : areLines ? CNxFraming::Lines(most)
                                          : CNxFraming::Delimited(delimiter, most);
    CNxMessageChain received, frame, wire;
    size_t searched = 0;
    size_t taken = 0;
    CNext next;
    for (size_t come = 0; come < bytes.size() && !next.isTooLong;) {
        const std::string_view piece = bytes.substr(come, pieceSize);
        come += piece.size();
        // In a block of its own every other time.
        come % 2 == 0 ? received.Append(piece) : received.Append(CNxMessageChain(piece));
        do {
            const std::string_view left = bytes.substr(taken, come - taken);
            next = isPrefixed ? FindPrefixed(left, width, isBig, most)
                              : FindDelimited(left, delimiter, areLines, most);
            next.isThere = next.isThere && !next.isTooLong;
            const auto result = framing.Take(received, frame, searched);
            Require((result == CNxFraming::EResult::TOO_LONG) == next.isTooLong);
            Require((result == CNxFraming::EResult::FRAME) == next.isThere);
            if (next.isThere) {
                taken += next.size;
                Require(frame.ToString() == next.frame);
                Require(framing.Append(wire, std::move(frame)) == NX_OK);
            }
        } while (next.isThere);
    }
    Require(areLines || wire.ToString() == bytes.substr(0, taken));
    CNxMessageChain tooLong(std::string(most < SIZE_MAX ? most + 1 : 0, 'x'));
    Require(most == SIZE_MAX || framing.Append(wire, std::move(tooLong)) == NX_ERROR_INVALID_ARG);
}

}  // namespace

void Fuzz(std::string_view input) {
    if (input.size() > 3 && input.front() == 'f') {
        return FuzzFraming(static_cast<unsigned char>(input[1]),
                           static_cast<unsigned char>(input[2]) % 32 + 1, input.substr(3));
    }
    CWorld(input).Run();
}
