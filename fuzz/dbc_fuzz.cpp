// Reads arbitrary text as a DBC file. Besides the sanitizers' checks: a stanza that comes out of it is one
// that the library takes.
#include <algorithm>
#include <cstdlib>

#include "libvu/libvu.h"
#include "tests/support/release_stream.h"
#include "vu/command.h"
#include "vu/dbc/dbc.h"

namespace {

constexpr size_t kStanzas = 20; // of one file, so that large ones do not slow the search

void offerToLibrary(const vu::dbc::Stanzas &stanzas)
{
    CanSet *set = can_set_create();
    for (size_t i = 0; i < std::min(stanzas.signals.size(), kStanzas); ++i) {
        CanSetSignal *signal = can_set_add_signal(set, stanzas.signals[i].json.c_str());
        if (!signal)
            std::abort();
        vu::test::releaseStream(signal->sequentializer);
        free(signal->name);
    }
    can_set_destroy(set);
    free(set);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvuErrorCallback = [](const char *) { return 1; };
    try {
        const auto database = vu::dbc::parse({reinterpret_cast<const char *>(data), size}, "fuzz");
        vu::dbc::StanzaOptions options;
        offerToLibrary(toStanzas(database, options));
        options.match = vu::dbc::Match::kPgn;
        options.select = {"*a*"};
        offerToLibrary(toStanzas(database, options));
    } catch (const vu::InputError &) {
    }
    return 0;
}
