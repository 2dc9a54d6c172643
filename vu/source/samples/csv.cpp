#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
#include <fstream>

#include "vu/command.h"
#include "vu/source/kinds.h"
#include "vu/source/samples/sample_stream.h"

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

constexpr std::string_view kEndOfHeader = "***End_of_Header***";

std::string_view trimmed(std::string_view text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '"'; };
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
    }

    size_t read(std::span<float> out) override { return fill(out); }
    size_t read(std::span<double> out) override { return fill(out); }

private:
    bool nextLine();
    void skipPreamble();
    void chooseDelimiter();
    void chooseColumn();
    std::string_view cell(size_t column) const; // of the present line; no data pointer if it has none
    [[noreturn]] void refuse(const std::string &what) const
    {
        throw InputError(fmt::format("{}:{}: {}", options_.file, number_, what));
    }
    template <class T>
    size_t fill(std::span<T> out);

    const CsvOptions options_;
    std::ifstream in_;
    std::string line_;
    size_t number_ = 0;     // of the present line, from 1
    bool standing_ = false; // `line_` was read and not yet used
    char delimiter_ = ',';
    size_t column_ = 0;
    std::exception_ptr failure_;
};

bool CsvReader::nextLine()
{
    if (standing_) {
        standing_ = false;
        return true;
    }
    while (std::getline(in_, line_)) {
        ++number_;
        if (!trimmed(line_).empty())
            return true;
    }
    return false;
}

void CsvReader::skipPreamble()
{
    while (number_ < options_.skip && std::getline(in_, line_))
        ++number_;
    if (options_.skip != 0)
        return;
    // Measurement files of the LVM kind have two heads, each with this line at its end.
    const auto begin = in_.tellg();
    size_t end = 0;
    while (std::getline(in_, line_) && number_ < 1000) {
        ++number_;
        if (std::string_view(line_).starts_with(kEndOfHeader))
            end = number_;
    }
    in_.clear();
    in_.seekg(begin);
    for (number_ = 0; number_ < end; ++number_)
        std::getline(in_, line_);
}

void CsvReader::chooseDelimiter()
{
    if (!nextLine())
        refuse("the table has no lines");
    standing_ = true;
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
    if (options_.decimal != "." && options_.decimal != ",")
        throw InputError(fmt::format("--decimal: expected . or , but got '{}'", options_.decimal));
}

void CsvReader::chooseColumn()
{
    double ignored = 0;
    const bool byNumber = parseNumber(std::string_view(options_.column), column_);
    bool header = options_.header == "yes" || !byNumber;
    if (options_.header == "auto" && byNumber) {
        std::string text(trimmed(cell(column_)));
        std::replace(text.begin(), text.end(), ',', '.');
        header = !text.empty() && !parseNumber(std::string_view(text), ignored);
    }
    if (header)
        standing_ = false;
    if (byNumber)
        return;
    for (column_ = 0;; ++column_) {
        const std::string_view name = cell(column_);
        if (!name.data())
            refuse(fmt::format("no column is called '{}'", options_.column));
        if (trimmed(name) == options_.column)
            return;
    }
}

std::string_view CsvReader::cell(size_t column) const
{
    std::string_view rest = line_;
    for (; column > 0; --column) {
        const size_t end = rest.find(delimiter_);
        if (end == std::string_view::npos)
            return {};
        rest = rest.substr(end + 1);
    }
    return rest.substr(0, rest.find(delimiter_));
}

template <class T>
size_t CsvReader::fill(std::span<T> out)
{
    if (failure_)
        std::rethrow_exception(failure_);
    size_t count = 0;
    try {
        while (count < out.size() && nextLine()) {
            std::string_view text = trimmed(cell(column_));
            std::string pointed;
            if (options_.decimal == "," && text.find(',') != std::string_view::npos) {
                pointed = text;
                pointed[pointed.find(',')] = '.';
                text = pointed;
            }
            if (!parseNumber(text, out[count]))
                refuse(fmt::format("column {}: expected a number, got '{}'", options_.column, text));
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
