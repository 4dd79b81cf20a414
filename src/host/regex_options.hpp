#pragma once

#include <regex>

// The installer's regular expressions search text that it does not control:
// /proc/modules and the output of uname, gcc and systemctl. libstdc++'s
// default matcher recurses once for each character that a repetition takes,
// so that a line of some ten thousand characters overflows the stack. Its
// polynomial matcher, an extension of libstdc++, walks the text in a loop and
// finds the same matches for expressions without back-references, which ours are.
inline constexpr std::regex_constants::syntax_option_type regex_in_loop = std::regex_constants::__polynomial;
