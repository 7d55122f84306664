// Chains of blocks: random operations on several of them, each against a plain string, and their
// storage shared between them. Framing against a plain reader of the whole.
#include <nx/buffer/CNxMessageChain.h>
#include <nx/stream/CNxFraming.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Fuzz.h"

namespace {

struct CModelled {
    CNxMessageChain chain;
    std::string model;
};

class CWorld {
public:
    explicit CWorld(std::string_view input) : m_input(input) {}

    void Run() {
        while (!m_input.empty()) {
            const unsigned what = TakeByte();
            CModelled& one = m_chains[what % m_chains.size()];
            CModelled& other = m_chains[TakeByte() % m_chains.size()];
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

    unsigned TakeByte() {
        const unsigned byte = m_input.empty() ? 0 : static_cast<unsigned char>(m_input.front());
        m_input.remove_prefix(m_input.empty() ? 0 : 1);
        return byte;
    }

    // Mostly small, now and then past the size of a block.
    size_t TakeSize() {
        const size_t size = TakeByte();
        return size < 192 ? size : (size - 191) * 100;
    }

    std::string TakeBytes() {
        std::string bytes(TakeSize(), '\0');
        for (char& byte : bytes) {
            // Few kinds, so that texts are nearly found often.
            byte = static_cast<char>('a' + (m_next = m_next * 5 + 1) / 1024 % 3);
        }
        return bytes;
    }

    size_t TakePlace(const CModelled& one) {
        const size_t place = TakeByte() << 8 | TakeByte();
        return one.model.empty() ? place % 4 : place % (one.model.size() + 2);
    }

    void Change(unsigned operation, CModelled& one, CModelled& other) {
        switch (operation % 12) {
            case 0:
            case 1:
                return AppendBytes(one);
            case 2:
                return AppendInPlace(one);
            case 3:
                one.chain.Append(std::move(other.chain));
                if (&one != &other) {
                    one.model += std::exchange(other.model, {});
                }
                return;
            case 4:
                return AppendStorage(one);
            case 5:
            case 6:
                return Consume(one);
            case 7:
                return Split(one, other);
            case 8:
                return Share(one, other);
            case 9:
                return Flatten(one);
            case 10:
                one.chain = CNxMessageChain::Adopt(one.chain.Release());
                return;
            default:
                other.chain = std::move(one.chain);
                if (&one != &other) {
                    other.model = std::exchange(one.model, {});
                }
        }
    }

    void AppendBytes(CModelled& one) {
        const std::string bytes = TakeBytes();
        // The chain's own among them.
        const std::string_view front = one.chain.GetFront().substr(0, 1000);
        one.model += bytes;
        one.model += front;
        one.model += bytes;
        one.chain.Append({bytes, front, bytes});
    }

    void AppendInPlace(CModelled& one) {
        const size_t size = TakeSize();
        char* const space = one.chain.MakeSpace(size);
        Require(one.chain.GetSpaceSize() >= std::max<size_t>(size, 1));
        const size_t filled = TakeByte() % 2 != 0 ? size : 0;
        std::fill_n(space, filled, 'b');
        one.chain.Commit(filled);
        one.model.append(filled, 'b');
    }

    void AppendStorage(CModelled& one) {
        static const std::string s_memory(5000, 'c');
        const size_t size = TakeSize() % s_memory.size();
        if (TakeByte() % 2 != 0) {
            int released = 0;
            one.chain.AppendAdopted(s_memory.data(), size, nullptr, nullptr);
            CNxMessageChain().AppendAdopted(
                s_memory.data(), size, [](void* count) { ++*static_cast<int*>(count); }, &released);
            Require(released == 1);
        } else if (size != 0) {
            CNxDataBlock* data = nullptr;
            Require(CNxDataBlock::CreateInstance(data, size, s_memory.data()) == NX_OK);
            one.chain.Append(data);
            data->ReleaseReference();
        }
        one.model.append(s_memory, 0, size);
    }

    void Consume(CModelled& one) {
        const size_t count = TakePlace(one);
        one.chain.Consume(count);
        one.model.erase(0, count);
    }

    void Split(CModelled& one, CModelled& other) {
        const size_t count = TakePlace(one);
        CModelled front{one.chain.Split(count), one.model.substr(0, count)};
        one.model.erase(0, count);
        other = std::move(front);
    }

    void Share(CModelled& one, CModelled& other) {
        const size_t offset = TakePlace(one);
        const size_t count = TakePlace(one);
        const size_t begin = std::min(offset, one.model.size());
        other = CModelled{one.chain.Share(offset, count), one.model.substr(begin, count)};
    }

    void Flatten(CModelled& one) {
        const size_t count = TakePlace(one);
        Require(one.chain.Flatten(count) == one.model.substr(0, count));
    }

    void Look(const CModelled& one) {
        const std::string& model = one.model;
        Require(one.chain.GetSize() == model.size() && one.chain.IsEmpty() == model.empty());
        const std::string_view front = one.chain.GetFront();
        Require(front.empty() == model.empty() && model.compare(0, front.size(), front) == 0);

        const size_t from = TakePlace(one);
        std::string text = model.substr(std::min(from, model.size()), TakeByte() % 8);
        if (TakeByte() % 2 != 0) {
            text += 'b';
        }
        const size_t before = TakePlace(one);
        Require(one.chain.Find(text, before) == model.find(text, before));
        Require(one.chain.Find('b', before) == model.find('b', before));

        char copy[300];
        const size_t copied = one.chain.Copy(copy, sizeof(copy), from);
        const std::string expected = model.substr(std::min(from, model.size()), sizeof(copy));
        Require(std::string_view(copy, copied) == expected);

        iovec pieces[4];
        size_t described = 0;
        for (size_t i = 0, n = one.chain.FillIov(pieces, 4); i < n; ++i) {
            const auto* const piece = static_cast<const char*>(pieces[i].iov_base);
            Require(model.compare(described, pieces[i].iov_len, piece, pieces[i].iov_len) == 0);
            described += pieces[i].iov_len;
        }
    }

    std::string_view m_input;
    unsigned m_next = 1;
    std::array<CModelled, 4> m_chains;
};

struct CFrames {
    std::vector<std::string> frames;
    bool isTooLong = false;

    // False when there are no more.
    bool Add(std::string_view frame, size_t most) {
        isTooLong = frame.size() > most;
        if (!isTooLong) {
            frames.emplace_back(frame);
        }
        return !isTooLong;
    }
};

CFrames ReadDelimited(std::string_view bytes, std::string_view delimiter, bool areLines,
                      size_t most) {
    CFrames read;
    for (;;) {
        const size_t end = bytes.find(delimiter);
        // A part of the delimiter may be there already.
        const size_t known =
            std::min(end, bytes.size() - std::min(bytes.size(), delimiter.size() - 1));
        const bool hasReturn = areLines && known != 0 && bytes[known - 1] == '\r';
        const std::string_view frame = bytes.substr(0, known - (hasReturn ? 1 : 0));
        if (end == std::string_view::npos) {
            read.isTooLong = frame.size() > most;
            return read;
        }
        if (!read.Add(frame, most)) {
            return read;
        }
        bytes.remove_prefix(end + delimiter.size());
    }
}

CFrames ReadPrefixed(std::string_view bytes, unsigned width, bool isBig, size_t most) {
    CFrames read;
    while (bytes.size() >= width) {
        std::uint64_t size = 0;
        for (unsigned i = 0; i < width; ++i) {
            size = size << 8 | static_cast<unsigned char>(bytes[isBig ? i : width - 1 - i]);
        }
        read.isTooLong = size > most;
        if (size > most || size > bytes.size() - width) {
            return read;
        }
        read.frames.emplace_back(bytes.substr(width, size));
        bytes.remove_prefix(width + size);
    }
    return read;
}

CFrames TakeFrames(const CNxFraming& framing, std::string_view bytes, size_t pieceSize) {
    CFrames taken;
    CNxMessageChain received;
    CNxMessageChain frame;
    auto result = CNxFraming::EResult::PARTIAL;
    for (size_t searched = 0; !bytes.empty() && result == CNxFraming::EResult::PARTIAL;) {
        const std::string_view piece = bytes.substr(0, pieceSize);
        bytes.remove_prefix(piece.size());
        // In a block of its own every other time.
        if (piece.size() % 2 == taken.frames.size() % 2) {
            received.Append(piece);
        } else {
            received.Append(CNxMessageChain(piece));
        }
        while ((result = framing.Take(received, frame, searched)) == CNxFraming::EResult::FRAME) {
            taken.frames.push_back(frame.ToString());
        }
    }
    taken.isTooLong = result == CNxFraming::EResult::TOO_LONG;
    return taken;
}

void FuzzFraming(unsigned how, size_t pieceSize, std::string_view bytes) {
    const size_t most = how / 16 % 16 == 15 ? SIZE_MAX : how / 16 % 16 * 3;
    const bool isBig = how % 8 < 4;
    const unsigned width = 1U << how % 4;
    const std::string_view delimiter = isBig ? "--" : "ab-a";
    CNxFraming framing;
    CFrames expected;
    if (how % 16 == 15) {
        framing = CNxFraming::Lines(most);
        expected = ReadDelimited(bytes, "\n", true, most);
    } else if (how % 16 >= 8) {
        framing = CNxFraming::Delimited(delimiter, most);
        expected = ReadDelimited(bytes, delimiter, false, most);
    } else {
        framing =
            CNxFraming::Prefixed(width, isBig ? ENxByteOrder::BIG : ENxByteOrder::LITTLE, most);
        expected = ReadPrefixed(bytes, width, isBig, most);
    }
    const CFrames taken = TakeFrames(framing, bytes, pieceSize);
    Require(taken.isTooLong == expected.isTooLong && taken.frames == expected.frames);

    CNxMessageChain wire;
    for (const std::string& frame : taken.frames) {
        Require(framing.Append(wire, CNxMessageChain(frame)) == NX_OK);
    }
    if (most < SIZE_MAX) {
        CNxMessageChain tooLong(std::string(most + 1, 'x'));
        Require(framing.Append(wire, std::move(tooLong)) == NX_ERROR_INVALID_ARG);
        Require(tooLong.GetSize() == most + 1);  // NOLINT(bugprone-use-after-move): not taken
    }
    // A return that ends a line is one of the end when it is put there again.
    Require(how % 16 == 15 ||
            TakeFrames(framing, wire.ToString(), pieceSize).frames == taken.frames);
}

}  // namespace

void Fuzz(std::string_view input) {
    if (input.size() > 3 && input.front() == 'f') {
        return FuzzFraming(static_cast<unsigned char>(input[1]),
                           static_cast<unsigned char>(input[2]) % 32 + 1, input.substr(3));
    }
    CWorld(input).Run();
}
