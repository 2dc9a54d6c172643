// The words of a DBC file, with the line that each stands on.
#pragma once

#include <string>
#include <string_view>

namespace vu::dbc {

struct Token {
    enum Kind { kEnd, kName, kNumber, kText, kMark };
    Kind kind = kEnd;
    std::string_view text; // kText: between the quotes, escapes as they stand
    unsigned line = 1;
};

// Numbers come without their sign: a minus can also stand between two numbers.
class Lexer {
public:
    // Both views stay valid for as long as the caller keeps them.
    Lexer(std::string_view text, std::string_view fileName) : rest_(text), fileName_(fileName) { next(); }

    const Token &token() const { return token_; }
    const Token &following() const { return following_; }
    void next();

    bool at(Token::Kind kind) const { return token_.kind == kind; }
    bool at(std::string_view text) const { return token_.kind != Token::kText && token_.text == text; }
    // Each takes a token of its kind, or throws InputError with what was expected.
    std::string_view name(const char *what);
    std::string text(const char *what); // with the escapes undone
    double number(const char *what);
    uint32_t whole(const char *what);
    void mark(char wanted);

    [[noreturn]] void fail(std::string_view expected) const;

private:
    Token scan();
    Token take(Token::Kind kind, size_t length);

    std::string_view rest_;
    std::string_view fileName_;
    unsigned line_ = 1;
    bool started_ = false;
    Token token_;
    Token following_;
};

} // namespace vu::dbc
