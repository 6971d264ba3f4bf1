#include "ControlCommands.h"

#include <algorithm>

#include "sim/SettingsJson.h"

namespace xalservice {

using nlohmann::json;

namespace {

// A message id given in a control command.
std::optional<unsigned int> messageId(const json& value) {
    if (value.is_number_unsigned() && value.get<uint64_t>() <= 0xFFFF) {
        return value.get<unsigned int>();
    }
    return std::nullopt;
}

}  // namespace

ControlCommands::Outcome ControlCommands::run(const std::string& text) {
    Outcome outcome;
    nlohmann::ordered_json& answer = outcome.answer;
    answer = {{"ok", true}};
    auto refuse = [&](const std::string& why) { answer = {{"ok", false}, {"error", why}}; };
    json command = json::parse(text, nullptr, /*allow_exceptions=*/false);
    const std::string op =
            command.is_object() && command.contains("op") && command["op"].is_string()
                    ? command["op"].get<std::string>()
                    : "";
    auto count = [&](const char* name, int fallback) {
        const json& value = command.is_object() && command.contains(name) ? command[name] : json();
        return value.is_number_integer()
                       ? static_cast<int>(std::clamp<int64_t>(value.get<int64_t>(), 0, 1000000))
                       : fallback;
    };
    auto storeError = [&](uint64_t failedBefore) {
        if (mModem.counters().failedCommits != failedBefore) refuse(mModem.lastCommitError());
    };
    const uint64_t failedBefore = mModem.counters().failedCommits;

    if (op == "status") {
        const auto config = mModem.config();
        const auto counters = mModem.counters();
        size_t clients = 0;
        for (const auto& info : mModem.clients()) clients += !info.released;
        answer["serviceUp"] = mModem.isServiceUp();
        answer["capacity3gpp"] = config.capacity3gpp;
        answer["capacity3gpp2"] = config.capacity3gpp2;
        answer["latencyMs"] = mLatency.count();
        answer["clients"] = clients;
        answer["profiles"] = mModem.profiles().size();
        answer["requests"] = counters.requests;
        answer["failedRequests"] = counters.failedRequests;
        answer["failedCommits"] = counters.failedCommits;
        answer["commitError"] = mModem.lastCommitError();
        json faults = json::array();
        for (const auto& fault : mModem.pendingFaults()) {
            faults.push_back({{"kind", fault.kind},
                              {"msgId", fault.msgId},
                              {"count", fault.count},
                              {"skip", fault.skip}});
        }
        answer["faults"] = std::move(faults);
    } else if (op == "profiles") {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& [slot, settings] : mModem.table()) {
            list.push_back(xalsim::profileToJson(slot, settings));
        }
        answer["profiles"] = std::move(list);
    } else if (op == "restart") {
        mModem.restart();
        storeError(failedBefore);
    } else if (op == "down" || op == "up") {
        mModem.setServiceUp(op == "up");
        storeError(failedBefore);
    } else if (op == "clearFaults") {
        mModem.clearFaults();
    } else if (op == "reset") {
        // The whole table changed: every client is told to read it again. A
        // fresh modem has no faults to come either.
        mModem.clearFaults();
        if (auto restored = mModem.restoreTable(xalsim::factoryTable()); restored.ok()) {
            mModem.sendProfileReady();
        } else {
            refuse(restored.error().message());
        }
    } else if (op == "fail" || op == "timeout") {
        const auto id = messageId(command.value("msgId", json()));
        if (!id) {
            refuse("a message id is needed");
        } else if (op == "fail") {
            mModem.failNext(*id, count("count", 1), count("skip", 0));
        } else {
            mModem.timeoutNext(*id, count("count", 1));
        }
    } else if (op == "hold") {
        const json on = command.contains("on") ? command["on"] : json(true);
        if (on.is_boolean()) {
            mHolding = on.get<bool>();
        } else {
            refuse("hold needs on: true or false");
        }
    } else if (op == "externalDelete") {
        // A profile deleted by another party: every registered client is told.
        if (!mModem.externalDelete(static_cast<wds_profile_type_enum_v01>(count("type", 0)),
                                   static_cast<uint8_t>(count("index", 0)))) {
            refuse(mModem.counters().failedCommits != failedBefore ? mModem.lastCommitError()
                                                                   : "no such profile");
        }
    } else if (op == "failService") {
        mModem.failGetAnyService(count("count", 1));
    } else if (op == "failConnect") {
        mModem.failClientInit(count("count", 1));
    } else if (op == "indicate") {
        const json named = command.contains("kind") ? command["kind"] : json();
        const std::string kind = named.is_string() ? named.get<std::string>() : "";
        if (kind == "subscription-change") {
            mModem.sendSubscriptionChange();
        } else if (kind == "profile-ready") {
            mModem.sendProfileReady();
        } else if (kind == "changed") {
            mModem.sendProfileChanged(static_cast<int32_t>(count("type", 0)),
                                      static_cast<uint8_t>(count("index", 0)),
                                      static_cast<int32_t>(count("event", 0)));
        } else if (kind == "raw") {
            const auto id = messageId(command.value("msgId", json()));
            const json bytes = command.value("bytes", json::array());
            std::vector<uint8_t> payload;
            bool good = id && bytes.is_array() && bytes.size() <= 16384;
            for (const auto& byte : bytes) {
                good = good && byte.is_number_unsigned() && byte.get<uint64_t>() <= 0xFF;
                if (good) payload.push_back(byte.get<uint8_t>());
            }
            if (good) {
                mModem.sendRawIndication(*id, std::move(payload));
            } else {
                refuse("a raw indication needs a message id and at most 16384 bytes");
            }
        } else {
            refuse("unknown indication '" + kind + "'");
        }
    } else if (op == "requestCount") {
        const auto id = messageId(command.value("msgId", json()));
        auto arrived = id ? mArrivals.find(*id) : mArrivals.end();
        answer["count"] = arrived != mArrivals.end() ? arrived->second : 0;
    } else if (op == "waitRequests") {
        const auto id = messageId(command.value("msgId", json()));
        if (!id) {
            refuse("a message id is needed");
        } else {
            outcome.wait = Wait{*id, static_cast<uint64_t>(count("count", 1)),
                                std::chrono::milliseconds(count("timeoutMs", 10000))};
            return outcome;  // answered once the requests came, or at the time-out
        }
    } else {
        refuse("unknown command '" + op + "'");
    }
    return outcome;
}

}  // namespace xalservice
