#include "vu/dbc/lexer.h"

#include <charconv>
#include <fmt/format.h>

#include "vu/command.h"

namespace vu::dbc {

namespace {

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

void Lexer::next()
{
    if (!started_) {
        started_ = true;
        following_ = scan();
    }
    token_ = following_;
    following_ = scan();
}

Token Lexer::take(Token::Kind kind, size_t length)
{
    const Token taken{kind, rest_.substr(0, length), line_};
    rest_.remove_prefix(length);
    return taken;
}

Token Lexer::scan()
{
    while (!rest_.empty() && (rest_[0] == ' ' || (rest_[0] >= '\t' && rest_[0] <= '\r'))) {
        line_ += rest_[0] == '\n';
        rest_.remove_prefix(1);
    }
    if (rest_.empty())
        return {Token::kEnd, {}, line_};
    const char first = rest_[0];
    if (isLetter(first))
        return take(Token::kName, lengthWhile(rest_, 0, [](char c) { return isLetter(c) || isDigit(c); }));
    if (isDigit(first) || (first == '.' && rest_.size() > 1 && isDigit(rest_[1])))
        return take(Token::kNumber, numberLength(rest_));
    if (first != '"')
        return take(Token::kMark, 1);

    size_t end = 1;
    unsigned lines = 0;
    while (end < rest_.size() && rest_[end] != '"') {
        end += rest_[end] == '\\' && end + 1 < rest_.size() && rest_[end + 1] == '"';
        lines += rest_[end] == '\n';
        ++end;
    }
    if (end >= rest_.size())
        throw InputError(
            fmt::format("{}:{}: expected a closing quote for the text that begins here", fileName_, line_));
    const Token text{Token::kText, rest_.substr(1, end - 1), line_};
    rest_.remove_prefix(end + 1);
    line_ += lines;
    return text;
}

void Lexer::fail(std::string_view expected) const
{
    const std::string found = at(Token::kEnd) ? "the end of the file" : fmt::format("'{}'", token_.text);
    throw InputError(fmt::format("{}:{}: expected {}, found {}", fileName_, token_.line, expected, found));
}

std::string_view Lexer::name(const char *what)
{
    if (!at(Token::kName))
        fail(what);
    const std::string_view taken = token_.text;
    next();
    return taken;
}

std::string Lexer::text(const char *what)
{
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

} // namespace vu::dbc
