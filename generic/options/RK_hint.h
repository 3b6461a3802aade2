// What a user may have meant: help that stands behind the message about a wrong option.
#pragma once

#include <span>
#include <string>
#include <string_view>

// On standard error, the option that `keyword` is most like; nothing if it is like none. A word
// that is an option, but for the dashes in front, is told that they are missing.
void RK_HintOption(std::string_view keyword, bool hasDashes);
// On standard error, how `value`, which has blanks in it, is given to the option `keyword`: as an
// argument of its own, or in quotes in the option's environment variable.
void RK_HintQuotes(std::string_view keyword, std::string_view value, bool isEnvironment);
// On standard error, that `text` selects nothing in a request because it stands in quotes.
void RK_HintNoQuotes(std::string_view keyword, std::string_view text, bool isEnvironment);
// On standard error, what `words` in a request, which select nothing, may have meant, one line
// each; they are allowed, but rarely wanted. Behind them the forms that a request may have, if a
// word is like no category or if `isBroken`: a part of the request could not be read.
void RK_HintRequest(std::span<const std::string> words, bool isBroken);
