/*
 * trigger_syntax.h - the MIPI trigger mode in words: a mode word
 * ("internal", "external", and where allowed "none") and up to three
 * parameters.
 */
#ifndef ZELISP_CAPTURE_SYNTAX_TRIGGER_SYNTAX_H
#define ZELISP_CAPTURE_SYNTAX_TRIGGER_SYNTAX_H

#include <cstdint>
#include <string>
#include <vector>

namespace capture_syntax {

struct TriggerSetting {
    enum Mode { None, Internal, External } mode = None;
    uint32_t param[3] = {0, 0, 0};
};

enum class TriggerRefusal { None, Shape, Parameter };

// words[0] the mode, then up to three 32-bit parameters. On a refusal,
// *bad_word is the parameter that is not a number (TriggerRefusal::Parameter);
// a wrong mode word or count is TriggerRefusal::Shape.
TriggerRefusal parse_trigger_words(const std::vector<std::string> &words, bool allow_none, TriggerSetting *setting,
                                   std::string *bad_word);

} // namespace capture_syntax

#endif
