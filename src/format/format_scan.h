// The grammar of a format: literal text, and conversions of '%', flags, width, precision, at most one
// length modifier and the conversion character. A 16-bit budget of characters bounds the walk.
#ifndef QV_FORMAT_FORMAT_SCAN_H
#define QV_FORMAT_FORMAT_SCAN_H

#include <cstdint>

namespace qv::fmt {

struct Conversion {
    uint8_t modifier = 0;      // 0, 'h' or 'l'
    const char *at = nullptr;  // the conversion character inside the format
};

// Walks a format from conversion to conversion. The budget starts at the format's length plus one,
// modulo 65536; every literal character and every character of a conversion up to its modifier
// takes one, and the walk ends when it reaches 0, as at the end of the format. The conversion
// character takes none, and scanning resumes right after it (the type name of a named conversion is
// then read as literal text).
class FormatScanner {
public:
    explicit FormatScanner(const char *format);

    // Skips literal text and reads the next conversion. False at the end of the format or of the
    // budget, also when either comes inside a conversion.
    bool Next(Conversion *out);

private:
    bool More() const { return *pos_ != '\0' && budget_ != 0; }
    void Take() {
        ++pos_;
        --budget_;
    }
    template <typename Accept>
    void SkipWhile(Accept accept) {
        while (More() && accept(*pos_)) Take();
    }

    const char *pos_;
    uint16_t budget_;
};

}  // namespace qv::fmt

#endif
