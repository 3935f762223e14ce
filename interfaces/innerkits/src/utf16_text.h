// UTF-16 to UTF-8 for log lines: interface descriptors travel as UTF-16 and are logged as text.
// A pure function; unpaired surrogates become U+FFFD.
#pragma once

#include <string>

namespace QUEX::Tandra {

std::string Utf16ToUtf8(const std::u16string& text);

}  // namespace QUEX::Tandra
