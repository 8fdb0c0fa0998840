#pragma once

#include <string>
#include <string_view>

/// UTF-16 as files hold it. Pure; safe from any thread.
namespace klarbox::UTF16 {

/// Appends a character as UTF-8; what is no character becomes U+FFFD.
void appendUTF8(std::string &text, char32_t character);

/// Turns code units into UTF-8 one by one. Surrogates without their other half become U+FFFD: the
/// system's texts may hold them, and a list is not damaged because one was cut in two.
class Decoder {
public:
    explicit Decoder(std::string &out) : out_(out) {}
    void add(char16_t unit);
    /// To be called where something else than another unit follows.
    void finish();

private:
    std::string &out_;
    char16_t high_ = 0; ///< a first half that waits for its second
};

/// The text of whole code units, most significant byte first or last; an odd byte at the end
/// becomes U+FFFD.
std::string decode(std::string_view bytes, bool bigEndian);

} // namespace klarbox::UTF16
