// Hints on standard error, after the messages: what the user may have meant, and what to do. With
// VERBOSE 0 there are none.
#pragma once

#include <span>
#include <string>
#include <string_view>

// Writes a hint, a line without its newline. Names are passed through PAL_Printable by the caller.
void RK_Hint(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Names the option that is most similar to `keyword`; prints nothing if none is similar. If
// `keyword` is an option without its two dashes, the hint says that they are missing.
void RK_HintOption(std::string_view keyword, bool hasDashes);
// Shows how to write `value`, which contains blanks, as the value of the option `keyword`: as one
// argument, or in quotes in the option's environment variable.
void RK_HintQuotes(std::string_view keyword, std::string_view value, bool isEnvironment);
// Says that `text` selects nothing in a request because it is quoted.
void RK_HintNoQuotes(std::string_view keyword, std::string_view text, bool isEnvironment);
// Names the part of a request's `value` that can't be read, which begins at `at`.
void RK_HintUnreadable(std::string_view value, size_t at);
// Shows how to write the times in `value` whose units are unknown, such as 178ms. False if there
// are none.
bool RK_HintUnits(std::string_view value);
// Says for each of `words`, unquoted words of a request that select nothing, which category may
// have been meant. Such words are allowed, but rarely intended. The forms of a request follow if a
// word is similar to no category or if `isBroken`: a part of the request could not be read.
void RK_HintRequest(std::span<const std::string> words, bool isBroken);
