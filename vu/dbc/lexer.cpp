#include "vu/dbc/lexer.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

#include "vu/support/texts.h"

namespace vu::dbc {

namespace {

// A text that is longer has lost its closing quote; without a bound each of many such texts would be read to
// the end of the file.
constexpr size_t kLongestText = 64 << 10;
constexpr size_t kShown = 60; // bytes of a word that is no good

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Bytes above 127 belong to names: some tools write umlauts there.
bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
           static_cast<unsigned char>(c) >= 0x80;
}

bool isLetterOrDigit(char c)
{
    return isLetter(c) || isDigit(c);
}

size_t lengthWhile(std::string_view text, size_t from, auto &&belongs)
{
    while (from < text.size() && belongs(text[from]))
        ++from;
    return from;
}

// Digits, fraction, exponent; an "e" that no digit follows is the beginning of the next word.
size_t numberLength(std::string_view text)
{
    size_t end = lengthWhile(text, 0, isDigit);
    if (end < text.size() && text[end] == '.')
        end = lengthWhile(text, end + 1, isDigit);
    if (end < text.size() && (text[end] == 'e' || text[end] == 'E')) {
        size_t digits = end + 1;
        if (digits < text.size() && (text[digits] == '+' || text[digits] == '-'))
            ++digits;
        if (digits < text.size() && isDigit(text[digits]))
            end = lengthWhile(text, digits, isDigit);
    }
    return end;
}

} // namespace

// Spaces, line ends and comments; returns whether a line ended among them.
bool Lexer::passSpace(size_t &at, unsigned &line) const
{
    bool newLine = at == 0;
    for (; at < all_.size(); ++at) {
        const char c = all_[at];
        if (c == '\n') {
            ++line;
            newLine = true;
        } else if (c == '/' && all_.substr(at, 2) == "//") {
            at = std::min(all_.find('\n', at), all_.size()) - 1;
        } else if (c != ' ' && (c < '\t' || c > '\r')) {
            break;
        }
    }
    return newLine;
}

Token Lexer::scan(size_t &at, unsigned &line) const
{
    const bool startsLine = passSpace(at, line);
    if (at == all_.size())
        return {Token::kEnd, {}, line, startsLine, at};
    const std::string_view rest = all_.substr(at);
    Token token{Token::kMark, rest.substr(0, 1), line, startsLine, at};
    if (rest[0] == '"') {
        token = scanText(at, line);
        token.startsLine = startsLine;
        return token;
    }
    if (isLetter(rest[0])) {
        token.kind = Token::kName;
        token.text = rest.substr(0, lengthWhile(rest, 0, isLetterOrDigit));
    } else if (isDigit(rest[0]) || (rest[0] == '.' && rest.size() > 1 && isDigit(rest[1]))) {
        token.kind = Token::kNumber;
        token.text = rest.substr(0, numberLength(rest));
    }
    at += token.text.size();
    return token;
}

Token Lexer::scanText(size_t &at, unsigned &line) const
{
    const std::string_view rest = all_.substr(at, kLongestText);
    Token token{Token::kText, {}, line, false, at};
    size_t end = 1;
    while (end < rest.size() && rest[end] != '"') {
        end += rest[end] == '\\' && end + 1 < rest.size() && rest[end + 1] == '"';
        ++end;
    }
    if (end >= rest.size()) {
        token.kind = Token::kOpenText;
        end = std::min(rest.find('\n'), rest.size());
        token.text = rest.substr(0, end);
        at += end;
        return token;
    }
    token.text = rest.substr(1, end - 1);
    line += static_cast<unsigned>(std::ranges::count(token.text, '\n'));
    at += end + 1;
    return token;
}

Token Lexer::following() const
{
    size_t at = at_;
    unsigned line = line_;
    return scan(at, line);
}

void Lexer::nextLineAfter(const Token &token)
{
    at_ = std::min(all_.find('\n', token.offset), all_.size());
    line_ = token.line;
    next();
}

void Lexer::fail(std::string_view expected) const
{
    const std::string found =
        at(Token::kEnd) ? "the end of the file" : fmt::format("'{}'", printable(token_.text, kShown));
    throw SyntaxError{fmt::format("{}:{}: expected {}, found {}", fileName_, token_.line, expected, found)};
}

std::string_view Lexer::name(const char *what)
{
    if (at(Token::kNumber)) { // "4WD": the whole word, which may go on after what looks like a number
        const std::string_view rest = all_.substr(token_.offset);
        token_.text = rest.substr(0, lengthWhile(rest, 0, isLetterOrDigit));
        token_.kind = token_.text.empty() ? Token::kNumber : Token::kName;
        at_ = token_.offset + token_.text.size();
    }
    if (!at(Token::kName))
        fail(what);
    const std::string_view taken = token_.text;
    next();
    return taken;
}

std::string Lexer::text(const char *what)
{
    if (at(Token::kOpenText))
        fail("a closing quote for this text");
    if (!at(Token::kText))
        fail(what);
    std::string plain;
    for (size_t i = 0; i < token_.text.size(); ++i) {
        if (token_.text.substr(i, 2) == "\\\"")
            ++i;
        plain += token_.text[i];
    }
    next();
    return plain;
}

std::string Lexer::shortText(const char *what)
{
    if (at(Token::kText) && token_.text.find('\n') != std::string_view::npos)
        fail("a closing quote on the same line");
    return text(what);
}

double Lexer::number(const char *what)
{
    const bool negative = at("-");
    if (negative || at("+"))
        next();
    double value = 0.0;
    const char *end = token_.text.data() + token_.text.size();
    if (!at(Token::kNumber) || std::from_chars(token_.text.data(), end, value).ec != std::errc())
        fail(what);
    next();
    return negative ? -value : value;
}

uint32_t Lexer::whole(const char *what)
{
    uint32_t value = 0;
    const char *end = token_.text.data() + token_.text.size();
    const auto [stop, error] = std::from_chars(token_.text.data(), end, value);
    if (!at(Token::kNumber) || error != std::errc() || stop != end)
        fail(what);
    next();
    return value;
}

void Lexer::mark(char wanted)
{
    if (!at(std::string_view(&wanted, 1)))
        fail(fmt::format("'{}'", wanted));
    next();
}

void Lexer::passTo(char wanted, const char *what)
{
    while (!at(std::string_view(&wanted, 1))) {
        if (at(Token::kEnd) || at(Token::kText) || token_.startsLine)
            fail(fmt::format("{} and '{}'", what, wanted));
        next();
    }
    next();
}

} // namespace vu::dbc
