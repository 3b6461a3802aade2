// What a user may have meant: help that stands behind the message about a wrong option.
#pragma once

#include <span>
#include <string>
#include <string_view>

// On standard error, the option that `keyword` is most like; nothing if it is like none.
void RK_HintOption(std::string_view keyword);
// On standard error, how a name with blanks is given to the option `keyword`.
void RK_HintName(std::string_view keyword);
// On standard error, what `words` in a request, which select nothing, may have meant, one line
// each; they are allowed, but rarely wanted. Behind them the forms that a request may have, if a
// word is like no category or if `isBroken`: a part of the request could not be read.
void RK_HintRequest(std::span<const std::string> words, bool isBroken);
