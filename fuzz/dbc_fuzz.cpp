// Reads arbitrary text as a DBC file. Besides the sanitizers' checks: a stanza that comes out of it is one
// that the library takes.
#include <algorithm>
#include <cstdlib>

#include "libvu/libvu.h"
#include "tests/support/release_stream.h"
#include "vu/command.h"
#include "vu/dbc/dbc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvuErrorCallback = [](const char *) { return 1; };
    CanSet *set = can_set_create();
    try {
        vu::dbc::StanzaOptions options;
        if (size % 2) {
            options.match = vu::dbc::Match::kPgn;
            options.select = {"*a*"};
        }
        auto signals =
            toStanzas(vu::dbc::parse({reinterpret_cast<const char *>(data), size}, "fuzz"), options).signals;
        signals.resize(std::min<size_t>(signals.size(), 20)); // large files would slow the search
        for (const auto &stanza : signals) {
            CanSetSignal *signal = can_set_add_signal(set, stanza.json.c_str());
            if (!signal)
                std::abort();
            vu::test::releaseStream(signal->sequentializer);
            free(signal->name);
        }
    } catch (const vu::InputError &) {
    }
    can_set_destroy(set);
    free(set);
    return 0;
}
