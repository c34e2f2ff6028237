// CVEKUtil: files, a hash, field splitters and a JSON formatter. Static functions only; any thread
// may call them. Text arguments are NUL-terminated and never null.
#ifndef CVEK_UTIL_H
#define CVEK_UTIL_H

#include <string>
#include <vector>

class CVEKUtil {
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
};

#endif
