#include "mm/BusDict.h"

#include <string>

namespace mm {

namespace {

int readValue(sd_bus_message* m, DictValue& value, bool& kept) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r <= 0) return r < 0 ? r : -EBADMSG;
    r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents);
    if (r < 0) return r;
    kept = true;
    const std::string signature = contents == nullptr ? "" : contents;
    if (signature == "i") {
        int32_t v = 0;
        r = sd_bus_message_read_basic(m, 'i', &v);
        value = v;
    } else if (signature == "u") {
        uint32_t v = 0;
        r = sd_bus_message_read_basic(m, 'u', &v);
        value = v;
    } else if (signature == "b") {
        int v = 0;
        r = sd_bus_message_read_basic(m, 'b', &v);
        value = v != 0;
    } else if (signature == "s") {
        const char* v = nullptr;
        r = sd_bus_message_read_basic(m, 's', &v);
        value = std::string(v == nullptr ? "" : v);
    } else {
        kept = false;
        r = sd_bus_message_skip(m, contents);
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

}  // namespace

int readDict(sd_bus_message* m, ProfileDict& dict, std::vector<std::string>* skipped) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char* key = nullptr;
        r = sd_bus_message_read_basic(m, 's', &key);
        if (r < 0) return r;
        DictValue value;
        bool kept = false;
        r = readValue(m, value, kept);
        if (r < 0) return r;
        if (kept) {
            dict[key] = std::move(value);
        } else if (skipped != nullptr) {
            skipped->push_back(key);
        }
        r = sd_bus_message_exit_container(m);
        if (r < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int readDictArray(sd_bus_message* m, std::vector<ProfileDict>& dicts) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "a{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_at_end(m, false)) == 0) {
        ProfileDict dict;
        r = readDict(m, dict);
        if (r < 0) return r;
        dicts.push_back(std::move(dict));
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int appendDict(sd_bus_message* m, const ProfileDict& dict) {
    int r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r < 0) return r;
    for (const auto& [key, value] : dict) {
        if (const auto* i = std::get_if<int32_t>(&value)) {
            r = sd_bus_message_append(m, "{sv}", key.c_str(), "i", *i);
        } else if (const auto* u = std::get_if<uint32_t>(&value)) {
            r = sd_bus_message_append(m, "{sv}", key.c_str(), "u", *u);
        } else if (const auto* b = std::get_if<bool>(&value)) {
            r = sd_bus_message_append(m, "{sv}", key.c_str(), "b", static_cast<int>(*b));
        } else {
            r = sd_bus_message_append(m, "{sv}", key.c_str(), "s",
                                      std::get<std::string>(value).c_str());
        }
        if (r < 0) return r;
    }
    return sd_bus_message_close_container(m);
}

int openBus(const std::string& address, sd_bus** bus) {
    *bus = nullptr;
    if (address.empty()) return sd_bus_open_system(bus);
    int r = sd_bus_new(bus);
    if (r >= 0) r = sd_bus_set_address(*bus, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(*bus, 1);
    if (r >= 0) r = sd_bus_start(*bus);
    if (r < 0) *bus = sd_bus_flush_close_unref(*bus);
    return r;
}

}  // namespace mm
