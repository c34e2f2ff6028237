// CVEKUtil: files, a hash, field splitters, a JSON formatter and LZ4 blocks. Static functions only;
// any thread may call them. Text arguments are NUL-terminated and never null.
#ifndef CVEK_UTIL_H
#define CVEK_UTIL_H

#include <string>
#include <vector>

#include "VEKExport.h"

class VEK_API CVEKUtil {
  public:
    // The size of a file in bytes, or (unsigned long)-1 after an Info line.
    static unsigned long GetFileSize(const char* path);
    // Reads the first `size` bytes (1 or more) into `buf`. Returns false, after an Info line, when
    // the file cannot be opened or is shorter.
    static bool LoadFile(const char* path, char* buf, long size);
    // Reads a whole file into a new buffer without a NUL, which the caller releases with free().
    // Returns null when the file is empty, cannot be read, or does not fit into memory.
    static char* LoadFile(const char* path);

    // A hash of `len` bytes, or of a text, modulo `mod`. mod is not 0; below 0 it counts as the
    // unsigned number of the same bits.
    static unsigned int Hash(const char* data, int len, int mod);
    static unsigned int Hash(const char* text, int mod);

    // Splits a line at `sep`. The first '"' of the line is dropped, and quotes protect nothing: a
    // separator behind it still ends the field. A line that ends with a separator has no empty
    // field behind that. Returns the number of fields.
    // out: an array of buffers, one for each field, of FIELD_SIZE bytes each; a longer field is
    // cut.
    static int ParseCSV(const char* line, char sep, char** out);
    // The same into a vector, which is cleared first; nothing is cut.
    static int ParseCSV(const char* line, char sep, std::vector<std::string>* out);
    // Appends the tokens between the characters of `delims`, of which any number in a row separate.
    // Returns the size of the vector.
    static int ParseCSV(const std::string& text, const char* delims, std::vector<std::string>& out);
    static constexpr size_t FIELD_SIZE = 256;

    // Appends a JSON text with one member or element to a line, indented by tabs. The text is not
    // checked. The indentation makes the result of deeply nested input much larger than it.
    static void JSONPrettyFormatting(const char* json, std::string& out);

    // The most bytes that a compressed block of `len` bytes takes; 0 when LZ4 cannot take so many
    // (0x7E000000 is the limit) or `len` is negative.
    static int LZ4_GetCompressBoundSize(int len);

    // The four below return the bytes written; -1 for a size that does not do or for want of
    // memory, and -2 when the codec fails, both after an Error line.

    // Compresses `len` bytes into `dst`, whose `cap` bytes must hold the bound of `len`, however
    // small the block turns out to be.
    static int LZ4_Compress(const char* src, int len, char* dst, int cap);
    // The same into a new buffer, which the caller releases with free(); null after a failure.
    static int LZ4_Compress(const char* src, int len, char** out);
    // Restores a block of `len` bytes, from any source, into `dst` of `cap` bytes. Fewer than `cap`
    // are a success, too: a caller who knows the length compares.
    static int LZ4_Decompress(const char* src, int len, char* dst, int cap);
    // The same into a new buffer of `origLen` bytes, which the caller releases with free(); null
    // after a failure. An origLen from a stranger is to be limited first.
    static int LZ4_Decompress(const char* src, int len, char** out, int origLen);
};

#endif
