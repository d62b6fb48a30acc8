// trigger_syntax.cpp - reading a trigger mode and its parameters.
#include "trigger_syntax.h"

#include "numbers.h"

namespace capture_syntax {

TriggerRefusal parse_trigger_words(const std::vector<std::string> &words, bool allow_none, TriggerSetting *setting,
                                   std::string *bad_word)
{
    if (words.empty() || words.size() > 4)
        return TriggerRefusal::Shape;
    TriggerSetting parsed;
    if (words[0] == "internal")
        parsed.mode = TriggerSetting::Internal;
    else if (words[0] == "external")
        parsed.mode = TriggerSetting::External;
    else if (!(allow_none && words[0] == "none" && words.size() == 1))
        return TriggerRefusal::Shape;
    for (size_t i = 1; i < words.size(); ++i) {
        unsigned long long value;
        if (!parse_unsigned(words[i], UINT32_MAX, &value)) {
            *bad_word = words[i];
            return TriggerRefusal::Parameter;
        }
        parsed.param[i - 1] = uint32_t(value);
    }
    *setting = parsed;
    return TriggerRefusal::None;
}

} // namespace capture_syntax
