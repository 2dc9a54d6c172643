// Reads arbitrary text as a test description. Besides the sanitizers' checks: a refusal names at least one
// line of the file, and what is accepted has what a recording needs.
#include <filesystem>
#include <string>

#include "fuzz/target.h"
#include "vu/command.h"
#include "vu/description/description.h"
#include "vu/description/forecast.h"

void fuzz(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    try {
        // A folder that holds nothing: no DBC can be found from there.
        const vu::Description test = vu::parseDescription(text, "/nonexistent/t.json");
        require(!test.channels.empty() && !test.name.empty() && test.flush_interval > 0.0);
        for (const vu::Channel &channel : test.channels)
            require(!channel.name.empty() && !channel.address.empty() && !channel.stanza.empty());
        vu::forecast(test);
    } catch (const vu::InputError &error) {
        require(std::string_view(error.what()).starts_with("/nonexistent/t.json:"));
    }
}
