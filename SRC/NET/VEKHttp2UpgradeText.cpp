#include "VEKHttp2UpgradeText.h"

#include <openssl/evp.h>

#include <algorithm>

const char* const HTTP2_UPGRADE_REQUEST =
    "GET / HTTP/1.1\r\nHost: %s\r\nConnection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\n"
    "HTTP2-Settings: %s\r\n\r\n";
const char* const HTTP2_UPGRADE_RESPONSE =
    "HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: h2c\r\n\r\n";

namespace {

constexpr size_t BASE64_GROUP = 4;

bool IsBase64(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

}  // namespace

int populate_settings(nghttp2_settings_entry* entries, const VEK_ST_HTTP2_OPTIONS* options) {
    entries[0] = {NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, options->nMaxConcurrentStream_};
    entries[1] = {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, options->nDefaultWindowSize_};
    entries[2] = {NGHTTP2_SETTINGS_MAX_FRAME_SIZE, options->nDefaultFrameSize_};
    entries[3] = {NGHTTP2_SETTINGS_HEADER_TABLE_SIZE, options->nMaxHeaderTableSize_};
    entries[4] = {NGHTTP2_SETTINGS_ENABLE_PUSH, options->nPushEnable_};
    return 5;
}

std::string VEK_BASE64_ENCODE(const void* data, size_t size) {
    std::string text((size + 2) / 3 * BASE64_GROUP + 1, '\0');  // the encoder adds a NUL
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        static_cast<const unsigned char*>(data), static_cast<int>(size));
    text.resize(static_cast<size_t>(length));
    return text;
}

std::string VEK_BASE64_DECODE(std::string_view text) {
    constexpr size_t MAX_PADDING = 2;
    if (text.empty() || text.size() % BASE64_GROUP != 0) {
        return {};
    }
    const size_t last = text.find_last_not_of('=');
    const size_t digits = last == std::string_view::npos ? 0 : last + 1;
    const size_t padding = text.size() - digits;
    // The decoder itself would skip blanks and take '=' for a digit.
    if (padding > MAX_PADDING || !std::all_of(text.begin(), text.begin() + digits, IsBase64)) {
        return {};
    }
    std::string bytes(text.size() / BASE64_GROUP * 3, '\0');
    EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                    reinterpret_cast<const unsigned char*>(text.data()),
                    static_cast<int>(text.size()));
    bytes.resize(bytes.size() - padding);
    return bytes;
}

void to_token68(std::string& text) {
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    text.erase(std::find(text.begin(), text.end(), '='), text.end());
}

std::string to_base64(std::string_view token) {
    std::string text(token);
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    text.resize((text.size() + BASE64_GROUP - 1) / BASE64_GROUP * BASE64_GROUP, '=');
    return text;
}
