// The words of a DBC file, with the line that each is on.
#pragma once

#include <string>
#include <string_view>

namespace vu::dbc {

struct Token {
    enum Kind { kEnd, kName, kNumber, kText, kMark, kOpenText };
    Kind kind = kEnd;
    std::string_view text; // kText: between the quotes, with its escapes; kOpenText: without a closing quote
    unsigned line = 1;
    bool startsLine = false; // nothing but spaces before it
    size_t offset = 0;       // in the file
};

// What is not as a DBC file has it: "FILE:LINE: expected this, found that".
struct SyntaxError {
    std::string text;
};

// Numbers come without their sign: a minus can also be between two numbers. Comments, from "//" to the end of
// the line, are no words.
class Lexer {
public:
    // Both views stay valid for as long as the caller keeps them.
    Lexer(std::string_view text, std::string_view fileName) : all_(text), fileName_(fileName) { next(); }

    const Token &token() const { return token_; }
    Token following() const;
    void next() { token_ = scan(at_, line_); }
    // Goes back to the line of `token` and from there to the next one.
    void nextLineAfter(const Token &token);

    bool at(Token::Kind kind) const { return token_.kind == kind; }
    bool at(std::string_view text) const
    {
        return token_.kind != Token::kText && token_.kind != Token::kOpenText && token_.text == text;
    }
    // Each takes a token of its kind, or throws SyntaxError with what was expected.
    std::string_view name(const char *what); // may begin with a digit
    std::string text(const char *what);      // with the escapes undone
    std::string shortText(const char *what); // the same, on one line
    double number(const char *what);
    uint32_t whole(const char *what);
    void mark(char wanted);
    // Whatever is between here and `wanted`, which has to come on this line.
    void passTo(char wanted, const char *what);

    [[noreturn]] void fail(std::string_view expected) const;

private:
    Token scan(size_t &at, unsigned &line) const;
    Token scanText(size_t &at, unsigned &line) const;
    bool passSpace(size_t &at, unsigned &line) const;

    std::string_view all_;
    std::string_view fileName_;
    size_t at_ = 0; // after token_
    unsigned line_ = 1;
    Token token_;
};

} // namespace vu::dbc
