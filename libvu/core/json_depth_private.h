// How deeply a JSON text is nested, before it is parsed: the parser's tree is freed level by level, on the
// stack.
#pragma once

namespace libvu {

constexpr int kMostJsonLevels = 64;

// Whether more than kMostJsonLevels brackets are open anywhere outside strings and comments, which the parser
// accepts too. No judgement on whether the text is JSON.
bool isNestedTooDeeply(const char *json);

} // namespace libvu
