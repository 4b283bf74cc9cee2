#include "qv_base64_decode.h"

#include <array>
#include <new>

#include "log.h"

namespace {

// Classification of every byte value: 0..63 the value of an alphabet character, below zero a
// byte the decoder skips.
constexpr signed char kInvalid = -1;
constexpr signed char kPadding = -2;
constexpr signed char kLineSpace = -3;  // tab, line feed, carriage return

constexpr std::array<signed char, 256> s_make_table() {
    std::array<signed char, 256> table{};
    for (auto& entry : table) {
        entry = kInvalid;
    }
    const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
    }
    table['='] = kPadding;
    table['\t'] = kLineSpace;
    table['\n'] = kLineSpace;
    table['\r'] = kLineSpace;
    return table;
}

constexpr std::array<signed char, 256> kTable = s_make_table();

// Decoder state across input bytes: which of the four characters of a group comes next, and the
// output byte whose high bits are already known.
struct decode_state {
    int step = 0;
    unsigned char partial = 0;
};

}  // namespace

int is_base64(std::string_view text) {
    for (const char c : text) {
        const signed char cls = kTable[static_cast<unsigned char>(c)];
        if (cls == kPadding) {
            break;
        }
        if (cls == kInvalid) {
            log_debug("File is NOT base64");
            return 0;
        }
    }
    log_debug("File could be base64 encoded");
    return 1;
}

std::vector<unsigned char> new_base64_decode(std::string_view input) {
    std::vector<unsigned char> out;
    try {
        out.reserve(input.size() / 4 * 3 + 3);
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate %s", "base64 output");
        return out;
    }
    decode_state state;
    for (const char c : input) {
        const signed char value = kTable[static_cast<unsigned char>(c)];
        if (value < 0) {
            continue;
        }
        const auto v = static_cast<unsigned char>(value);
        switch (state.step) {
            case 0:
                state.partial = static_cast<unsigned char>(v << 2);
                break;
            case 1:
                out.push_back(static_cast<unsigned char>(state.partial | (v >> 4)));
                state.partial = static_cast<unsigned char>(v << 4);
                break;
            case 2:
                out.push_back(static_cast<unsigned char>(state.partial | (v >> 2)));
                state.partial = static_cast<unsigned char>(v << 6);
                break;
            default:
                out.push_back(static_cast<unsigned char>(state.partial | v));
                break;
        }
        state.step = (state.step + 1) % 4;
    }
    return out;
}
