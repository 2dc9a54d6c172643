// Reads arbitrary text as a DBC file. Besides the sanitizers' checks: a stanza that comes out of it is one
// that the library takes, no two signals and no two messages share a name, every signal is either translated
// or named in a warning, and no warning is lost when they are summed up.
#include <set>

#include "fuzz/host.h"
#include "vu/command.h"
#include "vu/dbc/dbc.h"

namespace {

void checkNames(const vu::dbc::Database &database, const vu::dbc::Stanzas &stanzas)
{
    std::set<std::string_view> messages, names;
    for (const auto &message : database.messages)
        require(messages.insert(message.name).second);
    for (const auto &signal : stanzas.signals)
        require(names.insert(signal.name).second);
}

void checkNothingIsSilent(const vu::dbc::Database &database, const vu::dbc::Stanzas &stanzas)
{
    size_t signals = 0;
    for (const auto &message : database.messages)
        signals += message.signals.size();
    const size_t leftOut = stanzas.warnings.size() - database.warnings.size();
    require(stanzas.signals.size() + leftOut >= signals);
    const auto lines = summarised(stanzas.warnings);
    require(lines.size() <= stanzas.warnings.size() && lines.empty() == stanzas.warnings.empty());
}

} // namespace

void fuzz(const uint8_t *data, size_t size)
{
    const Signals made;
    try {
        vu::dbc::StanzaOptions options;
        const auto database = vu::dbc::parse({reinterpret_cast<const char *>(data), size}, "fuzz");
        if (size % 2) {
            options.match = vu::dbc::Match::kPgn;
            options.select = {"*a*"};
        }
        auto stanzas = toStanzas(database, options);
        checkNames(database, stanzas);
        if (options.select.empty())
            checkNothingIsSilent(database, stanzas);
        stanzas.signals.resize(
            std::min<size_t>(stanzas.signals.size(), 20)); // large files would slow the search
        for (const auto &stanza : stanzas.signals)
            require(can_set_add_signal(made.set, stanza.json.c_str()));
    } catch (const vu::InputError &) {
    }
}
