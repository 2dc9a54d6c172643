#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
#include <fstream>
#include <optional>
#include <vector>

#include "vu/command.h"
#include "vu/source/kinds.h"
#include "vu/source/samples/sample_stream.h"
#include "vu/support/nearest.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

struct CsvOptions {
    std::string file;
    std::string column = "0";
    std::string delimiter;
    std::string decimal = ".";
    std::string header = "auto";
    size_t skip = 0;
};

constexpr size_t kMostLinesOfARow = 1000;
constexpr std::string_view kEndOfHeader = "***End_of_Header***";

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string_view trimmed(std::string_view text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
    while (!text.empty() && blank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && blank(text.back()))
        text.remove_suffix(1);
    return text;
}

template <class T>
bool parseNumber(std::string_view text, T &value)
{
    if (text.starts_with('+'))
        text.remove_prefix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if constexpr (std::is_floating_point_v<T>)
        if (error == std::errc::result_out_of_range) // as any reader of text has it: 0 or infinite
            value = static_cast<T>(std::strtod(std::string(text).c_str(), nullptr));
    return error != std::errc::invalid_argument && end == text.data() + text.size();
}

// One column of a text table. The head is read at once, so that mistakes show before anybody listens; the
// samples are read as they are wanted.
class CsvReader : public SampleReader {
public:
    explicit CsvReader(const CsvOptions &options) : options_(options), in_(options.file)
    {
        if (!in_)
            throw InputError(fmt::format("{}: can not be read", options.file));
        skipPreamble();
        chooseDelimiter();
        chooseColumn();
        requireRows();
    }

    size_t read(std::span<float> out) override { return fill(out); }
    size_t read(std::span<double> out) override { return fill(out); }

private:
    bool readLine();
    bool nextLine();
    void requireRows();
    void skipPreamble();
    void chooseDelimiter();
    void chooseColumn();
    // Of the present line, without the quotes around it; nothing if the line has no such cell.
    std::optional<std::string> cell(size_t column) const;
    size_t unquote(size_t at, std::string &text) const;
    bool quotesOpen() const;
    [[noreturn]] void refuse(const std::string &what) const
    {
        throw InputError(fmt::format("{}:{}: {}", options_.file, number_, what));
    }
    template <class T>
    size_t fill(std::span<T> out);

    const CsvOptions options_;
    std::ifstream in_;
    std::string line_;
    size_t number_ = 0;   // of the present line, from 1
    bool unused_ = false; // `line_` was read and not yet used
    bool header_ = false; // the first line held names
    char delimiter_ = ',';
    bool delimiter_known_ = false;
    size_t column_ = 0;
    std::exception_ptr failure_;
};

bool CsvReader::readLine()
{
    if (!std::getline(in_, line_))
        return false;
    if (number_++ == 0 && line_.starts_with(kByteOrderMark))
        line_.erase(0, kByteOrderMark.size());
    return true;
}

// A cell in quotes may hold line ends. One that is never closed would take in the file: at most so many
// lines.
bool CsvReader::nextLine()
{
    if (unused_) {
        unused_ = false;
        return true;
    }
    while (readLine()) {
        if (trimmed(line_).empty())
            continue;
        const size_t begin = number_;
        for (std::string row = line_; quotesOpen(); line_ = row) {
            if (number_ - begin >= kMostLinesOfARow || !readLine()) {
                number_ = begin;
                refuse("a quotation mark is opened and never closed");
            }
            row += '\n' + line_;
            line_ = row;
        }
        return true;
    }
    return false;
}

// Whether the line ends within a cell that began with a quotation mark.
bool CsvReader::quotesOpen() const
{
    if (line_.find('"') == std::string::npos)
        return false;
    bool open = false, begin = true;
    for (size_t i = 0; i < line_.size(); ++i) {
        const char c = line_[i];
        if (open) {
            open = c != '"' || (i + 1 < line_.size() && line_[i + 1] == '"' && ++i);
        } else if (c == '"' && begin) {
            open = true;
            begin = false;
        } else if (c != ' ') {
            begin = delimiter_known_ ? c == delimiter_ : c == ',' || c == ';' || c == '\t';
        }
    }
    return open;
}

void CsvReader::requireRows()
{
    if (!header_)
        return;
    if (!nextLine())
        refuse("the table has a line of names and no rows");
    unused_ = true;
}

void CsvReader::skipPreamble()
{
    while (number_ < options_.skip && readLine()) {
    }
    if (options_.skip != 0)
        return;
    // Measurement files of the LVM kind have two heads, each with this line at its end.
    const auto begin = in_.tellg();
    size_t end = 0;
    while (number_ < 1000 && readLine()) {
        if (std::string_view(line_).starts_with(kEndOfHeader))
            end = number_;
    }
    in_.clear();
    in_.seekg(begin);
    for (number_ = 0; number_ < end && readLine();) {
    }
}

void CsvReader::chooseDelimiter()
{
    if (!nextLine())
        refuse("the table has no lines");
    unused_ = true;
    if (options_.delimiter == "tab" || options_.delimiter == "\\t")
        delimiter_ = '\t';
    else if (options_.delimiter.size() == 1)
        delimiter_ = options_.delimiter[0];
    else if (!options_.delimiter.empty())
        throw InputError(
            fmt::format("--delimiter: expected one character or tab, got '{}'", options_.delimiter));
    else
        for (const char candidate : {'\t', ';', ','})
            if (line_.find(candidate) != std::string::npos) {
                delimiter_ = candidate;
                break;
            }
    delimiter_known_ = true;
    if (options_.decimal != "." && options_.decimal != ",")
        throw InputError(fmt::format("--decimal: expected . or , but got '{}'", options_.decimal));
}

void CsvReader::chooseColumn()
{
    double ignored = 0;
    const bool byNumber = parseNumber(std::string_view(options_.column), column_);
    bool header = options_.header == "yes" || !byNumber;
    if (options_.header == "auto" && byNumber) {
        std::string text(trimmed(cell(column_).value_or("")));
        std::replace(text.begin(), text.end(), ',', '.');
        header = !text.empty() && !parseNumber(std::string_view(text), ignored);
    }
    header_ = header;
    if (header)
        unused_ = false;
    if (byNumber)
        return;
    std::vector<std::string> names;
    for (column_ = 0;; ++column_) {
        const auto name = cell(column_);
        if (!name)
            refuse(fmt::format("no column is called '{}'{}", printable(options_.column),
                               didYouMean(options_.column, names)));
        names.emplace_back(trimmed(*name));
        if (names.back() == options_.column)
            return;
    }
}

// As RFC 4180 has it: a cell in quotes may hold delimiters, line ends, and quotes that are doubled.
std::optional<std::string> CsvReader::cell(size_t column) const
{
    for (size_t at = 0; at <= line_.size(); --column) {
        std::string text;
        const size_t quote = line_.find_first_not_of(' ', at);
        if (quote != std::string::npos && line_[quote] == '"')
            at = unquote(quote + 1, text);
        const size_t end = std::min(line_.find(delimiter_, at), line_.size());
        if (column == 0)
            return text + line_.substr(at, end - at);
        at = end + 1;
    }
    return std::nullopt;
}

// What is in quotes from `at` on; returns the place after the quote that ends it.
size_t CsvReader::unquote(size_t at, std::string &text) const
{
    for (; at < line_.size(); ++at) {
        if (line_[at] == '"' && (at + 1 == line_.size() || line_[++at] != '"'))
            return line_[at] == '"' ? at + 1 : at;
        text += line_[at];
    }
    return at;
}

template <class T>
size_t CsvReader::fill(std::span<T> out)
{
    if (failure_)
        std::rethrow_exception(failure_);
    size_t count = 0;
    try {
        while (count < out.size() && nextLine()) {
            std::string held = cell(column_).value_or("");
            if (const size_t comma = held.find(','); options_.decimal == "," && comma != std::string::npos)
                held[comma] = '.';
            const std::string_view text = trimmed(held);
            if (!parseNumber(text, out[count]))
                refuse(fmt::format("column {}: expected a number, got '{}'", options_.column,
                                   printable(text, 60)));
            ++count;
        }
    } catch (const InputError &) {
        if (count == 0)
            throw;
        failure_ = std::current_exception(); // the samples before it are handed out first
    }
    return count;
}

} // namespace

void addCsv(CLI::App &source, Action &chosen)
{
    CLI::App *kind =
        source.add_subcommand("csv", "One column of a table of text: CSV, tab-separated, LVM\n"
                                     "Example: vu source csv hammer.lvm --listen unix:run/force.sock "
                                     "--data-type sequential_float64 --sample-rate 1000 --column F");
    auto options = std::make_shared<CsvOptions>();
    kind->add_option("FILE", options->file, "the file")->required();
    kind->add_option("--column", options->column, "name in the header, or number counted from 0 [0]");
    kind->add_option("--delimiter", options->delimiter, "a character, or tab [the first of tab ; , in use]");
    kind->add_option("--decimal", options->decimal, "decimal sign, . or , [.]");
    kind->add_option("--header", options->header,
                     "yes, no or auto: the first line holds names [auto: if its cell is no number]");
    kind->add_option("--skip", options->skip,
                     "lines ahead of the table [all up to the last ***End_of_Header***]");
    chooseKind(*kind, chosen, options, [](const ServeOptions &serving, const CsvOptions &settled) {
        if (settled.header != "auto" && settled.header != "yes" && settled.header != "no")
            throw InputError(fmt::format("--header: expected yes, no or auto, got '{}'", settled.header));
        return serveSamples(serving, std::make_unique<CsvReader>(settled));
    });
}

} // namespace vu
