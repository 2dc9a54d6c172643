// `vu plot`: channels as a picture, in the terminal or as SVG.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <memory>
#include <utility>

#include "vu/command.h"
#include "vu/krdfile/envelope.h"
#include "vu/krdfile/tool.h"
#include "vu/support/progress.h"
#include "vu/support/say.h"
#include "vu/support/terminal.h"
#include "vu/support/text_file.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

struct PlotOptions {
    std::string file;
    std::vector<std::string> channels;
    std::optional<std::string> output; // none: the terminal
    TimeRange time;
    size_t width = 0; // characters or pixels; 0: what suits the output
    size_t height = 0;
    bool force = false;
};

struct Panel {
    const Channel *channel = nullptr;
    Envelope envelope;

    std::string title() const
    {
        return printable(channel->unit.empty() ? channel->name
                                               : fmt::format("{} [{}]", channel->name, channel->unit));
    }
    // 0 at the lowest value, 1 at the highest; a constant lies in the middle.
    double level(double value) const
    {
        const double span = envelope.high - envelope.low;
        return span > 0 && std::isfinite(span) ? (value - envelope.low) / span : 0.5;
    }
};

// A raster of braille cells, each two dots wide and four high.
class Braille {
public:
    Braille(size_t width, size_t height) : width_(width), cells_(width * height, 0) {}

    size_t dotColumns() const { return 2 * width_; }
    size_t dotRows() const { return 4 * cells_.size() / width_; }
    void dot(size_t x, size_t y)
    {
        static constexpr uint8_t kDots[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
        cells_[y / 4 * width_ + x / 2] |= kDots[y % 4][x % 2];
    }
    void verticalLine(size_t x, size_t y, size_t yAgain)
    {
        for (size_t at = std::min(y, yAgain); at <= std::max(y, yAgain); ++at)
            dot(x, at);
    }
    std::string row(size_t y) const
    {
        std::string text;
        for (size_t x = 0; x < width_; ++x) {
            const uint8_t cell = cells_[y * width_ + x]; // U+2800 and up, in UTF-8
            text += {'\xE2', static_cast<char>(0xA0 | cell >> 6), static_cast<char>(0x80 | (cell & 0x3F))};
        }
        return text;
    }

private:
    size_t width_;
    std::vector<uint8_t> cells_;
};

// Figures of the scale, flush right in front of the picture.
constexpr size_t kScale = 13, kBar = 2;

std::string shortened(std::string text, size_t most)
{
    if (text.size() > most) {
        size_t end = most - 3;
        while (end > 0 && (text[end] & 0xC0) == 0x80) // not within a character
            end--;
        text.replace(end, std::string::npos, "...");
    }
    return text;
}

// No line is wider than scale, bar and `width`.
void printPanel(const Panel &panel, size_t width, size_t height)
{
    Braille raster(width, height);
    const auto rowOf = [&](double value) {
        const double rows = static_cast<double>(raster.dotRows() - 1);
        return static_cast<size_t>(std::lround((1.0 - panel.level(value)) * rows));
    };
    const auto &columns = panel.envelope.columns;
    std::optional<size_t> before;
    for (size_t x = 0; x < columns.size(); ++x) {
        if (!columns[x].any)
            continue;
        raster.verticalLine(x, rowOf(columns[x].low), rowOf(columns[x].high));
        size_t row = before ? rowOf(columns[*before].last) : 0;
        for (size_t between = before.value_or(x); columns[x].joined && between < x; ++between) {
            const double part = static_cast<double>(between + 1 - *before) / static_cast<double>(x - *before);
            const size_t to =
                rowOf(columns[*before].last + part * (columns[x].first - columns[*before].last));
            raster.verticalLine(between, std::exchange(row, to), to);
        }
        before = x;
    }

    const std::string high = fmt::format("{:.6g}", panel.envelope.high),
                      low = fmt::format("{:.6g}", panel.envelope.low);
    const size_t margin = std::max(high.size(), low.size());
    const std::string values = fmt::format(", {} values", panel.envelope.values);
    fmt::print("{}{}\n", shortened(panel.title(), kScale + kBar + width - std::min(width, values.size())),
               values);
    for (size_t y = 0; y < height; ++y)
        fmt::print("{:>{}} |{}\n", y == 0 ? high : y + 1 == height ? low : "", margin, raster.row(y));
    const std::string from = fmt::format("{:.6g} s", panel.envelope.time.from);
    fmt::print("{:>{}}  {}{:>{}}\n\n", "", margin, from, fmt::format("{:.6g} s", panel.envelope.time.to),
               width > from.size() ? width - from.size() : 0);
}

std::string xmlText(const std::string &text)
{
    std::string escaped;
    for (const char c : text) {
        if (c == '&' || c == '<' || c == '>')
            escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : "&gt;";
        else if (static_cast<unsigned char>(c) >= ' ')
            escaped += c;
    }
    return escaped;
}

constexpr double kMargin = 70, kHead = 24, kFoot = 24; // pixels around the curve of a panel
constexpr size_t kMinPanel = 80;

void drawPanel(TextFile &svg, const Panel &panel, double top, double width, double height)
{
    const double curveWidth = width - kMargin - 10, curveHeight = height - kHead - kFoot;
    const auto y = [&](double value) { return top + kHead + (1.0 - panel.level(value)) * curveHeight; };
    const auto &columns = panel.envelope.columns;
    svg.print("<text x=\"{}\" y=\"{}\" font-weight=\"bold\">{}</text>\n", kMargin, top + kHead - 8,
              xmlText(panel.title()));
    svg.print("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"none\" stroke=\"#bbb\"/>\n", kMargin,
              top + kHead, curveWidth, curveHeight);
    for (const double value : {panel.envelope.high, panel.envelope.low})
        svg.print("<text x=\"{}\" y=\"{:.1f}\" text-anchor=\"end\">{:.6g}</text>\n", kMargin - 6,
                  y(value) + 4, value);
    svg.print("<text x=\"{}\" y=\"{}\">{:.6g} s</text>\n", kMargin, top + height - 8,
              panel.envelope.time.from);
    svg.print("<text x=\"{}\" y=\"{}\" text-anchor=\"end\">{:.6g} s</text>\n", kMargin + curveWidth,
              top + height - 8, panel.envelope.time.to);
    svg.append("<path fill=\"none\" stroke=\"#1f6fb4\" stroke-linecap=\"round\" d=\"");
    for (size_t i = 0; i < columns.size(); ++i) {
        if (!columns[i].any)
            continue;
        const double x =
            kMargin + (static_cast<double>(i) + 0.5) * curveWidth / static_cast<double>(columns.size());
        svg.print("{}{:.1f} {:.1f}", columns[i].joined ? "L" : "M", x, y(columns[i].first));
        for (const double value : {columns[i].low, columns[i].high, columns[i].last})
            svg.print("V{:.1f}", y(value));
        svg.append("\n");
    }
    svg.append("\"/>\n");
}

void writeSvg(const std::vector<Panel> &panels, const PlotOptions &options, size_t width, size_t height)
{
    TextFile svg(*options.output, options.force);
    svg.print(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} {1}\" "
        "font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" "
        "fill=\"white\"/>\n",
        width, height * panels.size());
    for (size_t i = 0; i < panels.size(); ++i)
        drawPanel(svg, panels[i], static_cast<double>(i * height), static_cast<double>(width),
                  static_cast<double>(height));
    svg.append("</svg>\n");
    svg.finish();
}

bool hasCurve(const Channel &channel)
{
    return channel.periodic() || channel.kind == Kind::kFloat || channel.kind == Kind::kFloatNtp;
}

// The channels that were asked for and have a curve; why another one is left out is said.
std::vector<Panel> panelsOf(const Recording &recording, const PlotOptions &options, size_t columns)
{
    const Catalogue &catalogue = requireCatalogue(recording);
    std::vector<Panel> panels;
    uint64_t bytes = 0;
    for (const Channel *channel : channelsNamed(catalogue, options.channels, options.file)) {
        if (hasCurve(*channel)) {
            panels.push_back({channel, {}});
            for (const Block &block : recording.blocksOf(channel->group))
                bytes += 2 * uint64_t{block.size}; // each is read for the scale and for the curve
        } else if (!options.channels.empty()) {
            say("{}: has no curve: its messages are no numbers\n", printable(channel->name));
        }
    }
    ReadProgress progress(printable(options.file), bytes);
    for (Panel &panel : panels)
        panel.envelope = envelopeOf(*panel.channel, recording.blocksOf(panel.channel->group),
                                    catalogue.ticksPerSecond, options.time, columns, &progress);
    std::erase_if(panels, [](const Panel &panel) {
        if (panel.envelope.values == 0)
            say("{}: nothing to show in this time\n", printable(panel.channel->name));
        return panel.envelope.values == 0;
    });
    return panels;
}

int plot(const PlotOptions &options)
{
    const bool picture = options.output.has_value();
    if (picture)
        requireOutput(*options.output, std::span(&options.file, 1));
    const size_t fitting = terminalWidth() - std::min(terminalWidth(), kScale + kBar);
    const size_t width = options.width > 0 ? options.width : picture ? 1000 : std::max<size_t>(fitting, 6);
    const size_t height = options.height > 0 ? options.height : picture ? 220 : 8;
    const Recording recording = scan(openInput(options.file));
    const std::vector<Panel> panels = panelsOf(recording, options, picture ? width : 2 * width);
    if (panels.empty())
        throw InputError(
            fmt::format("{}: expected a channel of numbers with values to show", printable(options.file)));
    if (picture)
        writeSvg(panels, options, width, std::max<size_t>(height, kMinPanel));
    else
        std::ranges::for_each(panels, [&](const Panel &panel) { printPanel(panel, width, height); });
    return statusOf(recording);
}

} // namespace

} // namespace vu::krd

void vu::addPlot(CLI::App &app, Action &chosen)
{
    auto *command = app.add_subcommand("plot", "Draws channels in the terminal or as SVG, every peak kept");
    command->footer("What stands for \"no value\" is left out. Exit status 3: the file is damaged or was not "
                    "ended properly.\n"
                    "Example: vu plot drive.krd 'Engine*' --from 2 --to 4 -o engine.svg");
    const auto options = std::make_shared<krd::PlotOptions>();
    command->add_option("FILE", options->file, "The data file")->required();
    command->add_option("CHANNEL", options->channels,
                        "Globs of channel names; every channel of numbers if none");
    command->add_option("-o,--output", options->output, "An SVG file instead of the terminal");
    command->add_option("--from", options->time.from, "Begin, in seconds of the test");
    command->add_option("--to", options->time.to, "End, in seconds of the test");
    command
        ->add_option("--width", options->width,
                     "Characters of the curve, or pixels; as wide as the terminal if not given")
        ->check(CLI::Range(20, 10000));
    command->add_option("--height", options->height, "Of one channel, in characters or pixels")
        ->check(CLI::Range(2, 10000));
    command->add_flag("--force", options->force, "Overwrite the SVG file if it exists");
    command->callback([&chosen, options] { chosen = [options] { return krd::plot(*options); }; });
}
