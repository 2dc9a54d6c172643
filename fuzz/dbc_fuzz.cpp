// Reads arbitrary text as a DBC file. Besides the sanitizers' checks: a stanza that comes out of it is one
// that the library takes.
#include "fuzz/host.h"
#include "vu/command.h"
#include "vu/dbc/dbc.h"

void fuzz(const uint8_t *data, size_t size)
{
    const Signals made;
    try {
        vu::dbc::StanzaOptions options;
        if (size % 2) {
            options.match = vu::dbc::Match::kPgn;
            options.select = {"*a*"};
        }
        auto signals =
            toStanzas(vu::dbc::parse({reinterpret_cast<const char *>(data), size}, "fuzz"), options).signals;
        signals.resize(std::min<size_t>(signals.size(), 20)); // large files would slow the search
        for (const auto &stanza : signals)
            require(can_set_add_signal(made.set, stanza.json.c_str()));
    } catch (const vu::InputError &) {
    }
}
