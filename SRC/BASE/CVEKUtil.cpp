#include "CVEKUtil.h"

#include <lz4.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "VEKServiceLog.h"

namespace {

using FileHolder = std::unique_ptr<FILE, int (*)(FILE*)>;
using Buffer = std::unique_ptr<char, decltype(&free)>;

constexpr int SIZE_FAILURE = -1;
constexpr int CODEC_FAILURE = -2;

// A new buffer, or null after an Error line.
Buffer Allocate(int size) {
    // Never no bytes at all, for which null would be no failure.
    Buffer buffer(size < 0 ? nullptr : static_cast<char*>(malloc(std::max<size_t>(size, 1))), free);
    if (!buffer) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "memory allocate(%d bytes) failed!...", size);
    }
    return buffer;
}

// Hands a filled buffer to the caller, unless its filling has failed. Returns `result`.
int HandOut(Buffer& buffer, int result, char** out) {
    *out = result < 0 ? nullptr : buffer.release();
    return result;
}

// Splits a line and hands each field to `store`.
template <typename STORE>
void SplitLine(const char* line, char sep, STORE store) {
    std::string field;
    bool isQuoted = false;
    for (; *line != '\0'; ++line) {
        if (*line == '"' && !isQuoted) {
            isQuoted = true;
        } else if (*line != sep) {
            field += *line;
        } else if (*line == '"') {
            isQuoted = false;
        } else {
            store(field);  // in quotes, too: meant
            field.clear();
        }
    }
    if (!field.empty()) {
        store(field);
    }
}

// Writes JSON text character by character, with line breaks where they are due.
class JSONWriter {
  public:
    explicit JSONWriter(std::string& out) : out_(out) {}

    void Put(char c) {
        if (inString_) {
            PutInString(c);
            return;
        }
        switch (c) {
            case ' ':
            case '\t':
            case '\n':
            case '\r':
                break;
            case '{':
            case '[':
                Emit(c);
                ++depth_;
                isBreakDue_ = true;
                break;
            case '}':
            case ']':
                --depth_;
                isBreakDue_ = true;
                Emit(c);
                break;
            case ',':
                Emit(c);
                isBreakDue_ = true;
                break;
            case ':':
                Emit(c);
                out_ += ' ';
                break;
            default:
                Emit(c);
                inString_ = c == '"';
                break;
        }
    }

  private:
    void PutInString(char c) {
        out_ += c;
        if (isEscaped_) {
            isEscaped_ = false;
        } else if (c == '\\') {
            isEscaped_ = true;
        } else if (c == '"') {
            inString_ = false;
        }
    }
    // A break is due at the depth that has been reached when the next character comes.
    void Emit(char c) {
        if (isBreakDue_) {
            out_ += '\n';
            out_.append(static_cast<size_t>(std::max(depth_, 0)), '\t');
            isBreakDue_ = false;
        }
        out_ += c;
    }

    std::string& out_;
    int depth_ = 0;
    bool inString_ = false;
    bool isEscaped_ = false;
    bool isBreakDue_ = false;
};

}  // namespace

unsigned long CVEKUtil::GetFileSize(const char* path) {
    struct stat info {};
    if (stat(path, &info) != 0) {
        VEK_SYSTEM_CALL_LOG("stat(%s) failed...", path);
        return static_cast<unsigned long>(-1);
    }
    return static_cast<unsigned long>(info.st_size);
}

bool CVEKUtil::LoadFile(const char* path, char* buf, long size) {
    const FileHolder file(fopen(path, "r"), fclose);
    if (!file) {
        VEK_SYSTEM_CALL_LOG("fopen(%s) failed...", path);
        return false;
    }
    errno = 0;  // a short file is no system error
    if (fread(buf, static_cast<size_t>(size), 1, file.get()) != 1) {
        VEK_SYSTEM_CALL_LOG("fread() failed...");
        return false;
    }
    return true;
}

char* CVEKUtil::LoadFile(const char* path) {
    const unsigned long size = GetFileSize(path);
    if (size == 0 || size == static_cast<unsigned long>(-1)) {
        return nullptr;
    }
    Buffer buffer(static_cast<char*>(malloc(size)), free);
    if (!buffer || !LoadFile(path, buffer.get(), static_cast<long>(size))) {
        return nullptr;
    }
    return buffer.release();
}

unsigned int CVEKUtil::Hash(const char* data, int len, int mod) {
    constexpr unsigned int FACTOR = 101;
    unsigned int hash = 0;
    for (int i = 0; i < len; ++i) {
        // Signed: bytes from 0x80 on count below zero, meant.
        hash = hash * FACTOR + static_cast<unsigned int>(static_cast<signed char>(data[i]));
    }
    return hash % static_cast<unsigned int>(mod);
}

unsigned int CVEKUtil::Hash(const char* text, int mod) {
    return Hash(text, static_cast<int>(strlen(text)), mod);
}

int CVEKUtil::ParseCSV(const char* line, char sep, char** out) {
    int count = 0;
    SplitLine(line, sep, [out, &count](const std::string& field) {
        const size_t length = std::min(field.size(), FIELD_SIZE - 1);
        memcpy(out[count], field.data(), length);
        out[count++][length] = '\0';
    });
    return count;
}

int CVEKUtil::ParseCSV(const char* line, char sep, std::vector<std::string>* out) {
    out->clear();
    SplitLine(line, sep, [out](const std::string& field) { out->push_back(field); });
    return static_cast<int>(out->size());
}

int CVEKUtil::ParseCSV(const std::string& text, const char* delims, std::vector<std::string>& out) {
    size_t start = text.find_first_not_of(delims);
    while (start != std::string::npos) {
        const size_t end = text.find_first_of(delims, start);
        out.push_back(text.substr(start, end - start));
        start = text.find_first_not_of(delims, end);
    }
    return static_cast<int>(out.size());
}

void CVEKUtil::JSONPrettyFormatting(const char* json, std::string& out) {
    JSONWriter writer(out);
    for (; *json != '\0'; ++json) {
        writer.Put(*json);
    }
}

int CVEKUtil::LZ4_GetCompressBoundSize(int len) {
    return LZ4_compressBound(len);
}

int CVEKUtil::LZ4_Compress(const char* src, int len, char* dst, int cap) {
    const int bound = LZ4_compressBound(len);
    if (bound <= 0 || cap < bound) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "dest buffer size overflow!...(%d,%d)", bound, cap);
        return SIZE_FAILURE;
    }
    const int result = LZ4_compress_default(src, dst, len, bound);
    if (result < 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "LZ4_compress_default() failed!..(%d)", result);
        return CODEC_FAILURE;
    }
    return result;
}

int CVEKUtil::LZ4_Compress(const char* src, int len, char** out) {
    *out = nullptr;
    const int bound = LZ4_compressBound(len);
    Buffer buffer = Allocate(bound);
    return buffer ? HandOut(buffer, LZ4_Compress(src, len, buffer.get(), bound), out)
                  : SIZE_FAILURE;
}

int CVEKUtil::LZ4_Decompress(const char* src, int len, char* dst, int cap) {
    // The codec takes the lengths as they come: a negative one would be its undoing.
    const int result = len <= 0 || cap < 0 ? -1 : LZ4_decompress_safe(src, dst, len, cap);
    if (result < 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "LZ4_decompress_safe () failed!..(%d)", result);
        return CODEC_FAILURE;
    }
    return result;
}

int CVEKUtil::LZ4_Decompress(const char* src, int len, char** out, int origLen) {
    *out = nullptr;
    Buffer buffer = Allocate(origLen);
    return buffer ? HandOut(buffer, LZ4_Decompress(src, len, buffer.get(), origLen), out)
                  : SIZE_FAILURE;
}
