// DBC text into a Database. Only what decoding needs is kept; every other statement is passed over.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "vu/command.h"
#include "vu/dbc/dbc.h"
#include "vu/dbc/lexer.h"

namespace vu::dbc {

namespace {

constexpr uint32_t kExtendedBit = 0x80000000;
// A message that tools invent to keep signals in that no message has.
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

// How many bytes the UTF-8 character at the front of `text` has; 0 if there is none.
size_t utf8Length(std::string_view text)
{
    const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    const auto follow = [&](size_t i) { return (byte(i) & 0xC0) == 0x80; };
    if (byte(0) < 0x80)
        return 1;
    if (byte(0) >= 0xC2 && byte(0) < 0xE0)
        return follow(1) ? 2 : 0;
    const unsigned pair = byte(0) << 8 | byte(1);
    if (byte(0) >= 0xE0 && byte(0) < 0xF0) // neither overlong nor half of a surrogate pair
        return follow(1) && follow(2) && pair >= 0xE0A0 && (pair < 0xEDA0 || pair > 0xEDBF) ? 3 : 0;
    return pair >= 0xF090 && pair <= 0xF48F && follow(1) && follow(2) && follow(3) ? 4 : 0;
}

std::string toUtf8(std::string_view text)
{
    if (text.starts_with("\xEF\xBB\xBF"))
        text.remove_prefix(3);
    size_t length = 1;
    for (std::string_view rest = text; !rest.empty() && length > 0; rest.remove_prefix(length))
        length = utf8Length(rest);
    if (length > 0)
        return std::string(text);
    std::string converted; // Latin-1: each byte is its own code point
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80)
            converted += static_cast<char>(0xC0 | byte >> 6);
        converted += static_cast<char>(byte < 0x80 ? byte : 0x80 | (byte & 0x3F));
    }
    return converted;
}

class Parser {
public:
    Parser(std::string_view text, const std::string &fileName) : lexer_(text, fileName) {}
    Database run();

private:
    struct SignalKey {
        uint32_t id; // as the file writes it, with the mark of 29 bits
        std::string signal;
        auto operator<=>(const SignalKey &) const = default;
    };

    void statement();
    bool atKeyword() const { return lexer_.at(Token::kName) && isKeyword(lexer_.token().text); }
    void passKeywords();
    void passNames();
    void passStatement();
    void message();
    Signal signal();
    void multiplexing(Signal &signal, std::string_view indicator);
    void attribute();
    void valueType();
    void selectorValues();
    void applyToSignals();

    Lexer lexer_;
    Database database_;
    std::vector<uint32_t> ids_; // of database_.messages, as the file writes them
    std::map<SignalKey, Signal::Number> numbers_;
    std::map<SignalKey, Selection> selections_;
    std::map<SignalKey, std::string> longNames_; // of a message under an empty signal
};

Database Parser::run()
{
    while (!lexer_.at(Token::kEnd))
        statement();
    applyToSignals();
    return std::move(database_);
}

void Parser::statement()
{
    static const std::map<std::string_view, void (Parser::*)()> kStatements = {
        {"NS_", &Parser::passKeywords},
        {"BS_", &Parser::passNames},
        {"BU_", &Parser::passNames},
        {"BO_", &Parser::message},
        {"BA_", &Parser::attribute},
        {"SIG_VALTYPE_", &Parser::valueType},
        {"SG_MUL_VAL_", &Parser::selectorValues},
    };
    if (lexer_.at("VERSION")) {
        lexer_.next();
        lexer_.text("the version as a text in quotes");
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
    passStatement();
}

// Keywords, of which only what follows one tells whether it begins a statement.
void Parser::passKeywords()
{
    lexer_.mark(':');
    const auto beginsStatement = [this] {
        const Token &after = lexer_.following();
        return after.kind == Token::kNumber || after.kind == Token::kText || after.text == ":";
    };
    while (lexer_.at(Token::kName) && !beginsStatement())
        lexer_.next();
}

void Parser::passNames()
{
    lexer_.mark(':');
    while (!lexer_.at(Token::kEnd) && !atKeyword())
        lexer_.next();
}

void Parser::passStatement()
{
    while (!lexer_.at(";")) {
        if (lexer_.at(Token::kEnd))
            lexer_.fail("';' at the end of the last statement");
        lexer_.next();
    }
    lexer_.next();
}

void Parser::message()
{
    const uint32_t id = lexer_.whole("the identifier of a message");
    Message message;
    message.name = lexer_.name("the name of a message");
    message.id = id & ~kExtendedBit;
    message.extended = (id & kExtendedBit) != 0;
    lexer_.mark(':');
    message.length = lexer_.whole("the length of a message in bytes");
    lexer_.name("the sender of a message");
    while (lexer_.at("SG_")) {
        lexer_.next();
        message.signals.push_back(signal());
    }
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
    lexer_.number("the minimum of a signal");
    lexer_.mark('|');
    lexer_.number("the maximum of a signal");
    lexer_.mark(']');
    signal.unit = lexer_.text("the unit of a signal as a text in quotes");

    // Receivers, with commas or without; a keyword begins what comes behind them.
    while (lexer_.at(",") || (lexer_.at(Token::kName) && !atKeyword()))
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
        lexer_.fail("':' or one of 'M', 'm0', 'm0M' and so on behind the name of a signal");
    signal.selection = Selection{{}, {{value, value}}};
}

// Names are cut at 32 characters, and the whole ones stand in attributes.
void Parser::attribute()
{
    const std::string attribute = lexer_.text("the name of an attribute in quotes");
    const bool ofMessage = attribute == "SystemMessageLongSymbol" && lexer_.at("BO_");
    const bool ofSignal = attribute == "SystemSignalLongSymbol" && lexer_.at("SG_");
    if (ofMessage || ofSignal) {
        lexer_.next();
        const uint32_t id = lexer_.whole("the identifier of a message");
        const std::string signal(ofSignal ? lexer_.name("the name of a signal") : "");
        longNames_[{id, signal}] = lexer_.text("the whole name in quotes");
    }
    passStatement();
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
    numbers_[{id, signal}] = static_cast<Signal::Number>(type);
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
    selections_[{id, signal}] = std::move(selection);
    passStatement();
}

void Parser::applyToSignals()
{
    const auto rename = [this](uint32_t id, const std::string &signal, std::string &name) {
        if (const auto found = longNames_.find({id, signal}); found != longNames_.end())
            name = found->second;
    };
    for (size_t i = 0; i < database_.messages.size(); ++i) {
        rename(ids_[i], "", database_.messages[i].name);
        for (Signal &signal : database_.messages[i].signals) {
            const SignalKey key{ids_[i], signal.name};
            if (const auto number = numbers_.find(key); number != numbers_.end())
                signal.number = number->second;
            if (const auto selection = selections_.find(key); selection != selections_.end())
                signal.selection = selection->second;
            if (signal.selection && !signal.selection->selector.empty())
                rename(ids_[i], signal.selection->selector, signal.selection->selector);
            rename(ids_[i], key.signal, signal.name);
        }
    }
}

} // namespace

const Signal *Message::find(std::string_view signal) const
{
    const auto found = std::ranges::find(signals, signal, &Signal::name);
    return found == signals.end() ? nullptr : &*found;
}

Database parse(std::string_view text, const std::string &fileName)
{
    const std::string converted = toUtf8(text);
    return Parser(converted, fileName).run();
}

Database read(const std::filesystem::path &file)
{
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    if (!in || !(text << in.rdbuf()))
        throw InputError(
            fmt::format("{}: expected a DBC file that can be read: {}", file.string(), std::strerror(errno)));
    return parse(text.view(), file.string());
}

} // namespace vu::dbc
