// DBC text into a Database. Only what decoding and naming need is kept; every other statement is passed over.
#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <functional>
#include <set>

#include "vu/command.h"
#include "vu/dbc/dbc.h"
#include "vu/dbc/extras.h"
#include "vu/dbc/file_text.h"
#include "vu/dbc/lexer.h"

namespace vu::dbc {

namespace {

constexpr uint32_t kExtendedBit = 0x80000000;
constexpr size_t kMostWarnings = 1000; // a text with more bad statements is something else
// A message that tools invent for signals that belong to none.
constexpr std::string_view kOrphans = "VECTOR__INDEPENDENT_SIG_MSG";

bool isKeyword(std::string_view word)
{
    static const std::set<std::string_view> kKeywords = {
        "VERSION",
        "NS_",
        "BS_",
        "BU_",
        "BO_",
        "SG_",
        "NS_DESC_",
        "CM_",
        "BA_DEF_",
        "BA_",
        "VAL_",
        "CAT_DEF_",
        "CAT_",
        "FILTER",
        "EV_",
        "EV_DATA_",
        "ENVVAR_DATA_",
        "BA_DEF_DEF_",
        "SGTYPE_",
        "SGTYPE_VAL_",
        "BA_SGTYPE_",
        "SIG_TYPE_REF_",
        "VAL_TABLE_",
        "BA_DEF_SGTYPE_",
        "SIG_GROUP_",
        "SIG_VALTYPE_",
        "BO_TX_BU_",
        "BA_DEF_REL_",
        "BA_REL_",
        "SIGTYPE_VALTYPE_",
        "BA_SGTYPE_REL_",
        "BA_DEF_DEF_REL_",
        "BU_SG_REL_",
        "BU_EV_REL_",
        "BU_BO_REL_",
        "SG_MUL_VAL_",
    };
    return kKeywords.contains(word);
}

class Parser {
public:
    Parser(std::string_view text, const std::string &fileName) : lexer_(text, fileName), fileName_(fileName)
    {
    }
    Database run();

private:
    void statement();
    void guarded(const std::function<void()> &read);
    void recover(const Token &begin);
    bool atKeyword() const { return lexer_.at(Token::kName) && isKeyword(lexer_.token().text); }
    bool atStatement() const { return atKeyword() && lexer_.token().startsLine; }
    void passKeywords();
    void passNames();
    void passStatement();
    void endStatement(const char *expected);
    void message();
    Signal signal();
    void multiplexing(Signal &signal, std::string_view indicator);
    SignalKey keyOf(std::string_view keyword);
    void attribute();
    void comment();
    void valueType();
    void valueTable();
    void valuesOfSignal();
    std::vector<ValueText> valueTexts();
    void selectorValues();

    Lexer lexer_;
    const std::string &fileName_;
    Database database_;
    std::vector<uint32_t> ids_; // of database_.messages, as the file writes them
    Extras extras_;
    std::map<std::string, std::vector<ValueText>, std::less<>> tables_; // by name
    bool anyMessage_ = false;
    bool messageFailed_ = false; // the latest one could not be read
};

Database Parser::run()
{
    if (lexer_.at(Token::kEnd))
        throw InputError(fmt::format("{}: expected a DBC file, and there is nothing in it", fileName_));
    while (!lexer_.at(Token::kEnd))
        guarded([this] { statement(); });
    if (!anyMessage_ && !database_.warnings.empty())
        throw InputError(database_.warnings.front().place);
    if (!anyMessage_)
        throw InputError(fmt::format("{}: expected a DBC file, and no message (BO_) is in it", fileName_));
    attach(database_.messages, ids_, extras_);
    return std::move(database_);
}

// Reads something that begins here. Where it cannot be read, it is left out with a warning.
void Parser::guarded(const std::function<void()> &read)
{
    const Token begin = lexer_.token();
    try {
        read();
    } catch (const SyntaxError &error) {
        if (database_.warnings.size() == kMostWarnings)
            throw InputError(fmt::format("{} ({} statements before it could not be read either)", error.text,
                                         kMostWarnings));
        database_.warnings.push_back({"statements left out that could not be read", error.text,
                                      error.text + ": this statement is left out"});
        recover(begin);
    }
}

// What is wrong can be far from where it began, after a quote that was never closed: so the search for the
// next statement begins on the next line.
void Parser::recover(const Token &begin)
{
    lexer_.nextLineAfter(begin);
    while (!lexer_.at(Token::kEnd) && !atStatement())
        lexer_.nextLineAfter(lexer_.token());
}

void Parser::statement()
{
    static const std::map<std::string_view, void (Parser::*)()> kStatements = {
        {"NS_", &Parser::passKeywords},       {"BS_", &Parser::passNames},
        {"BU_", &Parser::passNames},          {"BO_", &Parser::message},
        {"BA_", &Parser::attribute},          {"CM_", &Parser::comment},
        {"VAL_TABLE_", &Parser::valueTable},  {"VAL_", &Parser::valuesOfSignal},
        {"SIG_VALTYPE_", &Parser::valueType}, {"SG_MUL_VAL_", &Parser::selectorValues},
    };
    if (lexer_.at("VERSION")) {
        lexer_.next();
        lexer_.shortText("the version as a text in quotes");
        return;
    }
    const auto known = kStatements.find(lexer_.at(Token::kName) ? lexer_.token().text : std::string_view());
    if (known != kStatements.end()) {
        lexer_.next();
        (this->*known->second)();
        return;
    }
    if (!atKeyword())
        lexer_.fail("the keyword of a statement");
    if (lexer_.at("SG_") && !messageFailed_) // those of a message that is left out go with it
        lexer_.fail("a message (BO_) before its signals");
    lexer_.next();
    passStatement();
}

// Keywords, of which only what follows one shows whether it begins a statement. A tool may have some of its
// own.
void Parser::passKeywords()
{
    lexer_.mark(':');
    const auto isListed = [this] {
        const Token after = lexer_.following();
        const bool begins = after.kind == Token::kNumber || after.kind == Token::kText || after.text == ":";
        return after.startsLine || (atKeyword() && !begins);
    };
    while (lexer_.at(Token::kName) && isListed())
        lexer_.next();
}

void Parser::passNames()
{
    lexer_.mark(':');
    while (!lexer_.at(Token::kEnd) && !lexer_.at(Token::kText) && !lexer_.at(Token::kOpenText) &&
           !atKeyword())
        lexer_.next();
}

// Up to its semicolon, without which some tools end their files.
void Parser::passStatement()
{
    while (!lexer_.at(";") && !lexer_.at(Token::kEnd) && !atStatement()) {
        if (lexer_.at(Token::kOpenText) ||
            (lexer_.at(Token::kText) && lexer_.token().text.find('\n') != std::string_view::npos))
            lexer_.fail("a closing quote on the same line");
        lexer_.next();
    }
    if (lexer_.at(";"))
        lexer_.next();
}

void Parser::endStatement(const char *expected)
{
    if (lexer_.at(";"))
        lexer_.next();
    else if (!lexer_.at(Token::kEnd) && !atStatement())
        lexer_.fail(expected);
}

void Parser::message()
{
    anyMessage_ = true;
    messageFailed_ = true; // unless it comes to its end here
    const uint32_t id = lexer_.whole("the identifier of a message");
    Message message;
    message.name = lexer_.name("the name of a message");
    message.id = id & ~kExtendedBit;
    message.extended = (id & kExtendedBit) != 0;
    lexer_.mark(':');
    message.length = lexer_.whole("the length of a message in bytes");
    if (!lexer_.token().startsLine)
        lexer_.name("the sender of a message");
    while (lexer_.at("SG_"))
        guarded([&] {
            lexer_.next();
            message.signals.push_back(signal());
        });
    messageFailed_ = false;
    if (message.name == kOrphans)
        return;
    database_.messages.push_back(std::move(message));
    ids_.push_back(id);
}

Signal Parser::signal()
{
    Signal signal;
    signal.name = lexer_.name("the name of a signal");
    if (lexer_.at(Token::kName)) {
        multiplexing(signal, lexer_.token().text);
        lexer_.next();
    }
    lexer_.mark(':');
    signal.start = lexer_.whole("the start bit of a signal");
    lexer_.mark('|');
    signal.length = lexer_.whole("the length of a signal in bits");
    lexer_.mark('@');
    const uint32_t order = lexer_.whole("a byte order, 0 or 1");
    signal.motorola = order == 0;
    signal.isSigned = lexer_.at("-");
    if (order > 1 || (!signal.isSigned && !lexer_.at("+")))
        lexer_.fail("a byte order of 0 or 1 with a sign, '+' or '-'");
    lexer_.next();

    lexer_.mark('(');
    signal.scale = lexer_.number("the factor of a signal");
    lexer_.mark(',');
    signal.offset = lexer_.number("the offset of a signal");
    lexer_.mark(')');
    lexer_.mark('[');
    // The limits of a value have no part in decoding it, and some are beyond what a number can be.
    lexer_.passTo('|', "the minimum of a signal");
    lexer_.passTo(']', "the maximum of a signal");
    signal.unit = lexer_.shortText("the unit of a signal as a text in quotes");

    // Receivers, with commas or without; a keyword begins what follows them.
    while (lexer_.at(",") || lexer_.at(Token::kNumber) || (lexer_.at(Token::kName) && !atKeyword()))
        lexer_.next();
    return signal;
}

// "M" selects, "m3" is there while the selector reads 3, "m3M" does both. A bare "m" is in use as well; with
// no value to wait for, it can only mean a selector.
void Parser::multiplexing(Signal &signal, std::string_view indicator)
{
    signal.isSelector = indicator.ends_with('M') || indicator == "m";
    if (signal.isSelector)
        indicator.remove_suffix(1);
    if (indicator.empty())
        return;
    uint32_t value = 0;
    const char *end = indicator.data() + indicator.size();
    const auto [stop, error] = std::from_chars(indicator.data() + 1, end, value);
    if (indicator[0] != 'm' || error != std::errc() || stop != end)
        lexer_.fail("':' or one of 'M', 'm0', 'm0M' and so on after the name of a signal");
    signal.selection = Selection{{}, {{value, value}}};
}

// The message or signal that a statement is about, after its keyword.
SignalKey Parser::keyOf(std::string_view keyword)
{
    lexer_.next();
    const uint32_t id = lexer_.whole("the identifier of a message");
    return {id, std::string(keyword == "SG_" ? lexer_.name("the name of a signal") : "")};
}

void Parser::attribute()
{
    const std::string attribute = lexer_.shortText("the name of an attribute in quotes");
    const bool ofMessage = attribute == "SystemMessageLongSymbol" && lexer_.at("BO_");
    const bool ofSignal = attribute == "SystemSignalLongSymbol" && lexer_.at("SG_");
    if (ofMessage || ofSignal) {
        const SignalKey key = keyOf(lexer_.token().text);
        extras_.longNames[key] = lexer_.shortText("the whole name in quotes");
    }
    passStatement();
}

// Comments of the network, its nodes and variables are passed over. A quote within a comment that is not
// escaped would end it too early, so that nothing may follow it but the end.
void Parser::comment()
{
    if (lexer_.at("BO_") || lexer_.at("SG_")) {
        const SignalKey key = keyOf(lexer_.token().text);
        extras_.comments[key] = lexer_.text("a comment in quotes");
    } else {
        while (lexer_.at(Token::kName) && !lexer_.token().startsLine)
            lexer_.next();
        lexer_.text("a comment in quotes");
    }
    endStatement("';' after the comment");
}

void Parser::valueType()
{
    const uint32_t id = lexer_.whole("the identifier of a message");
    const std::string signal(lexer_.name("the name of a signal"));
    if (lexer_.at(":")) // some tools write it, some do not
        lexer_.next();
    const uint32_t type = lexer_.whole("a value type: 0, 1 or 2");
    if (type > 2)
        lexer_.fail("a value type: 0, 1 or 2, before this");
    extras_.numbers[{id, signal}] = static_cast<Signal::Number>(type);
    passStatement();
}

std::vector<ValueText> Parser::valueTexts()
{
    std::vector<ValueText> texts;
    while (lexer_.at(Token::kNumber) || lexer_.at("-") || lexer_.at("+")) {
        const double value = lexer_.number("a value");
        texts.push_back({value, lexer_.shortText("the text of a value in quotes")});
    }
    endStatement("a value and its text, or ';'");
    return texts;
}

void Parser::valueTable()
{
    const std::string name(lexer_.name("the name of a value table"));
    tables_[name] = valueTexts();
}

// Environment variables have value tables as well, under a name and without an identifier.
void Parser::valuesOfSignal()
{
    if (!lexer_.at(Token::kNumber))
        return passStatement();
    const uint32_t id = lexer_.whole("the identifier of a message");
    const SignalKey key{id, std::string(lexer_.name("the name of a signal"))};
    if (!lexer_.at(Token::kName) || atStatement()) {
        extras_.values[key] = valueTexts();
        return;
    }
    const auto table = tables_.find(lexer_.token().text);
    if (table == tables_.end())
        lexer_.fail("values and their texts, or the name of a value table");
    extras_.values[key] = table->second;
    passStatement();
}

void Parser::selectorValues()
{
    const uint32_t id = lexer_.whole("the identifier of a message");
    const std::string signal(lexer_.name("the name of a signal"));
    Selection selection;
    selection.selector = lexer_.name("the name of a selector signal");
    do {
        if (lexer_.at(","))
            lexer_.next();
        const uint32_t first = lexer_.whole("the first selector value of a range");
        lexer_.mark('-');
        const uint32_t last = lexer_.whole("the last selector value of a range");
        if (first > last)
            lexer_.fail("a range of selector values that rises, before this");
        selection.values.push_back({first, last});
    } while (lexer_.at(",") || lexer_.at(Token::kNumber));
    extras_.selections[{id, signal}] = std::move(selection);
    passStatement();
}

} // namespace

Database parse(std::string_view text, const std::string &fileName)
{
    const std::string converted = toUtf8(text);
    return Parser(converted, fileName).run();
}

Database read(const std::filesystem::path &file)
{
    return parse(readFile(file), file.string());
}

} // namespace vu::dbc
