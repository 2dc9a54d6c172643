// Every kind of channel that can be simulated, in both byte orders: each signal counts, and every value that
// is sent is found at its sample.
#include "tests/road/road.h"

namespace vu::test {
namespace {

constexpr double kRate = 100, kSeconds = 3;

// What a signal is at its sample n: first + n * step, at most `most`.
struct Count {
    double first = 0, step = 1, most = 1e9;
    size_t silent = 0; // each of so many samples repeats the one before
};

class SimRoad : public Road {
protected:
    void addSim(const std::string &name, const Json &stanza, Json source, const Json &more = Json::object())
    {
        source.update(
            {{"kind", "sim"}, {"signal", "counter"}, {"speed", 0}, {"rate", kRate}, {"duration", kSeconds}});
        addChannel(name, stanza, source, more);
    }
    // A signal of the latest channel.
    void addSignal(const std::string &name, Json stanza, const Count &count)
    {
        stanza.update({{"name", name}, {"scale", 1}, {"offset", 0}});
        stanza["data_type"] = counts.size() % 2 ? "float64" : "float32";
        description["channels"].back()["signals"].push_back(held(kRate, stanza));
        counts[name] = count;
    }
    std::map<std::string, Count> counts;
};

TEST_F(SimRoad, EveryValueIsOnItsSample)
{
    for (const std::string module : {"pd806h", "pd806k"}) {
        // Records of one sample, and of 50, whose size follows the header.
        const double gather = module == "pd806h" ? 0 : 0.5;
        Json names, numbers;
        for (int k = 0; k < 200; k++) {
            names.push_back(module + "." + std::to_string(k));
            numbers.push_back(16 + 10 * k);
        }
        addSim(module, {{"data_type", "sequential_float32"}, {"connector", module}},
               {{"names", names}, {"numbers", numbers}, {"no_value_every", 10}, {"gather", gather}});
        for (size_t k = 0; k < names.size(); k++)
            addSignal(names[k], {{"pipe_rate", 10}}, {static_cast<double>(k), 1, 1e9, 10});
    }
    for (const std::string type : {"float32", "float64", "float32_ntp", "float64_ntp"})
        for (const std::string order : {"big", "little"}) {
            addSim(type + order, held(kRate, {{"data_type", "message_" + type}}),
                   {{"endian", order}, {"jitter", 0.0049}});
            counts[type + order] = {};
        }
    const Json types = {"UBYTE", "SBYTE",    "UWORD",   "SWORD",        "ULONG",
                        "SLONG", "A_UINT64", "A_INT64", "FLOAT32_IEEE", "FLOAT64_IEEE"};
    for (const std::string order : {"big", "little"}) {
        addSim("xcp" + order, {{"data_type", "message_xcp_ip"}},
               {{"xcp_types", types}, {"xcp_byte_order", order}}, {{"store", false}});
        for (size_t k = 0; k < types.size(); k++) {
            const double most = types[k] == "UBYTE" ? 255 : types[k] == "SBYTE" ? 127 : 1e9;
            addSignal(
                types[k].get<std::string>() + order,
                {{"xcp_data_type", types[k]}, {"xcp_byte_order", order == "big" ? "MSB_FIRST" : "MSB_LAST"}},
                {static_cast<double>(k), 1, most});
        }
    }
    addSim("can", {{"data_type", "message_can"}}, {{"can_ids", {"0x100", "18FEF100"}}});
    const Json fields[] = {R"({"db_data_format": "SLSB", "db_bit_start": 0, "db_bit_length": 16})"_json,
                           R"({"db_data_format": "SMSB", "db_bit_start": 23, "db_bit_length": 16})"_json,
                           R"({"db_data_format": "FLSB", "db_bit_start": 32, "db_bit_length": 32})"_json};
    for (Json field : fields)
        for (const std::string id : {"100", "18FEF100"}) {
            const std::string format = field["db_data_format"];
            const double step = format == "FLSB" ? 1 : 100;
            field["db_msg_id"] = id;
            addSignal(format + id, field, {id == "100" ? 0 : step, step});
        }
    // Over midnight, and a second without pulses.
    addSim("gps", R"({"data_type": "message_raw", "connector": "gps1"})"_json,
           R"({"latency": 0.2, "jitter": 0.0049, "utc": "2024-02-28T23:59:58", "lost_pulses": "1:2"})"_json,
           R"({"gps": {"receiver": "Garmin GPS", "signals": ["altitude", "ground_heading"],
                       "sample_rate": 100, "stale": 10, "invalid": -1}})"_json);
    counts["altitude"] = {100, 1, 379}; // what comes later than the end is never heard
    counts["ground_heading"] = {0, 1, 279};
    run();
    for (const auto &[name, count] : counts) {
        const auto got = samples(name);
        ASSERT_GE(got.size(), kRate * kSeconds - 1) << name; // the last waits for a time after it
        for (size_t n = 0; n < got.size(); n++) {
            const size_t said = count.silent > 0 && n % count.silent == count.silent - 1 ? n - 1 : n;
            ASSERT_EQ(got[n], std::min(count.first + count.step * static_cast<double>(said), count.most))
                << name << " at sample " << n;
        }
    }
}

} // namespace
} // namespace vu::test
