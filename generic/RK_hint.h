// What a user may have meant: help that stands behind the message about a wrong option.
#pragma once

#include <span>
#include <string_view>

// On standard error, the option that `keyword` is most like; nothing if it is like none.
void RK_HintOption(std::string_view keyword);
// On standard error, how a name with blanks is given to the option `keyword`.
void RK_HintName(std::string_view keyword);
// On standard error, the forms that a request may have.
void RK_HintRequest();
// On standard error, what `word` in a request, which is none of the categories, may have meant.
void RK_HintRequestWord(std::string_view word, std::span<const std::string_view> categories);
