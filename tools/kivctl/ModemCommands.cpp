#include "ModemCommands.h"

#include <android-base/parseint.h>

#include <algorithm>
#include <map>

#include "ClientChoice.h"
#include "ManagerControl.h"
#include "Watcher.h"
#include "WdsNames.h"
#include "common/Errors.h"
#include "mmclient/XalMm.h"
#include "remote/XalRemote.h"
#include "xal/wds_v01.h"

namespace kivctl {

using nlohmann::ordered_json;

namespace {

// One fault still to come, as "modem status" says it.
std::string faultText(const nlohmann::json& fault) {
    const std::string kind = fault.value("kind", "");
    const int count = fault.value("count", 0);
    const int skip = fault.value("skip", 0);
    const std::string what = requestName(fault.value("msgId", 0u));
    const std::string next =
            "the next " + (count == 1 ? std::string() : std::to_string(count) + " ");
    std::string text;
    if (kind == "fail") {
        text = next + what + (count == 1 ? " fails" : " fail");
    } else if (kind == "timeout") {
        text = "no answer to " + next + what;
    } else if (kind == "transport") {
        text = next + what + " lost on the way";
    } else if (kind == "service") {
        text = "finding the service fails " + std::to_string(count) + "x";
    } else if (kind == "connect") {
        text = "opening a client fails " + std::to_string(count) + "x";
    } else if (kind == "response") {
        text = "the next " + what + " gets a response of its own";
    } else {
        text = kind + " " + std::to_string(count) + "x";
    }
    if (skip > 0) text += " after " + std::to_string(skip) + " more";
    return text;
}

unsigned int messageIdOf(const std::string& kind) {
    if (auto msgId = requestByName(kind)) return *msgId;
    unsigned int id = 0;
    if (android::base::ParseUint(kind, &id, 0xFFFFu)) return id;
    throw UsageError("unknown request kind " + quote(kind) +
                     " (create|modify|delete|list|get|bind|register|events, a message id from 0 "
                     "to 0xFFFF, or for fail: service|connect)");
}

nlohmann::json indication(const std::vector<std::string>& words) {
    if (words.empty()) throw UsageError("modem send needs an indication (kivctl modem --help)");
    const std::string& kind = words[0];
    if (kind == "subscription-change" || kind == "profile-ready") {
        if (words.size() > 1) throw UsageError("unexpected argument " + quote(words[1]));
        return {{"op", "indicate"}, {"kind", kind}};
    }
    if (kind == "changed") {
        if (words.size() != 4)
            throw UsageError("usage: modem send changed 3gpp|3gpp2|all INDEX EVENT");
        static const std::map<std::string, int> kTypes = {{"3gpp", WDS_PROFILE_TYPE_3GPP_V01},
                                                          {"3gpp2", WDS_PROFILE_TYPE_3GPP2_V01},
                                                          {"all", WDS_PROFILE_TYPE_ALL_V01}};
        auto type = kTypes.find(words[1]);
        if (type == kTypes.end()) {
            throw UsageError("bad profile type " + quote(words[1]) + " (3gpp|3gpp2|all)");
        }
        const auto event = eventByName(words[3]);
        return {{"op", "indicate"},
                {"kind", "changed"},
                {"type", type->second},
                {"index", parseNumber(words[2], "an index", 0, 255)},
                {"event", event ? *event : parseNumber(words[3], "an event", 0, 1000000)}};
    }
    if (kind == "raw") {
        if (words.size() != 3) throw UsageError("usage: modem send raw MESSAGE-ID HEX-BYTES");
        const std::string& hex = words[2];
        auto digit = [](char c) { return isxdigit(static_cast<unsigned char>(c)) != 0; };
        if (hex.size() % 2 != 0 || hex.size() > 2 * 16384 ||
            !std::all_of(hex.begin(), hex.end(), digit)) {
            throw UsageError("bad bytes " + quote(hex) +
                             " (pairs of hex digits, at most 16384 bytes)");
        }
        nlohmann::json bytes = nlohmann::json::array();
        for (size_t i = 0; i < hex.size(); i += 2) {
            bytes.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
        }
        return {{"op", "indicate"},
                {"kind", "raw"},
                {"msgId", messageIdOf(words[1])},
                {"bytes", bytes}};
    }
    throw UsageError("unknown indication " + quote(kind) +
                     " (subscription-change|profile-ready|changed|raw)");
}

}  // namespace

int ModemCommands::watch(const Arguments& args) {
    const auto countText = args.value("--count");
    const int limit = countText ? parseNumber(*countText, "--count", 1, 1 << 30) : 0;
    if (mGlobals.modemSocket.empty() && !mGlobals.modemManager) {
        throw UsageError(
                "watch needs the modem service or a modem manager: start kivmodemd and name its "
                "socket with --modem PATH or KIVR_MODEM, or give --modem-manager");
    }
    // The modem manager's client finds its modem first.
    if (mGlobals.modemManager && !mSession.status().value("serviceUp", false)) {
        throw Refused("no modem up on the modem manager to watch");
    }
    ChangeWatcher watcher(std::chrono::milliseconds(mGlobals.timeoutMs), mSession.ledger());
    mErr << "kivctl: watching "
         << (mGlobals.modemManager ? client::where() : "the modem at " + xalremote::socketPath())
         << "\n";
    mErr.flush();
    // The service going away and coming back is said, and not counted.
    for (int seen = 0; limit == 0 || seen < limit;) {
        const auto next = watcher.next();
        const auto change = watcher.describe(next);
        if (mGlobals.json) {
            printJson(mOut, change);
        } else {
            mOut << changeLine(change) << "\n";
        }
        mOut.flush();
        if (next.kind == ChangeWatcher::Change::kIndication) ++seen;
    }
    return kOk;
}

int ModemCommands::modem(const Arguments& args) {
    if (mGlobals.modemManager) return managerModem(args.positionals());
    std::vector<std::string> words = args.positionals();
    const std::string action = words[0];
    words.erase(words.begin());
    auto noMore = [&](size_t most) {
        if (words.size() > most) throw UsageError("unexpected argument " + quote(words[most]));
    };
    nlohmann::json command;
    std::string done;
    // kivctl's own modem lives for one command: a fault or a service state
    // set by a command of its own would be gone before anything met it.
    const bool transient =
            action == "fail" || action == "timeout" || action == "down" || action == "up";
    if (transient && mGlobals.modemSocket.empty() && !mInShell) {
        throw UsageError("modem " + action +
                         " on kivctl's own modem lasts for one command only: use it in kivctl "
                         "shell, or on kivmodemd (--modem PATH)");
    }
    if (action == "status") {
        noMore(0);
        auto status = mSession.status();
        status.erase("ok");
        if (mGlobals.json) {
            printJson(mOut, ordered_json(status));
            return kOk;
        }
        mOut << "service:   " << (status.value("serviceUp", false) ? "up" : "down") << "\n"
             << "profiles:  " << status.value("profiles", 0) << " (room for "
             << status.value("capacity3gpp", 0) << " 3gpp, " << status.value("capacity3gpp2", 0)
             << " 3gpp2)\n"
             << "latency:   " << status.value("latencyMs", 0) << " ms per request\n"
             << "clients:   " << status.value("clients", 0) << "\n"
             << "requests:  " << status.value("requests", 0) << " ("
             << status.value("failedRequests", 0) << " failed)\n";
        const std::string error = status.value("commitError", std::string());
        if (!error.empty()) mOut << "last save: failed: " << error << "\n";
        std::string faults;
        for (const auto& fault : status.value("faults", nlohmann::json::array())) {
            faults += (faults.empty() ? "" : "; ") + faultText(fault);
        }
        mOut << "faults:    " << (faults.empty() ? "none to come" : faults) << "\n";
        return kOk;
    }
    if (action == "clear") {
        noMore(0);
        command = {{"op", "clearFaults"}};
        done = "no faults to come";
    } else if (action == "restart" || action == "reset" || action == "down" || action == "up") {
        noMore(0);
        command = {{"op", action}};
        done = action == "restart" ? "restarted" : action == "reset" ? "reset" : action;
    } else if (action == "fail" || action == "timeout") {
        noMore(2);
        if (words.empty())
            throw UsageError("modem " + action + " needs a kind (kivctl modem --help)");
        const int count = words.size() > 1 ? parseNumber(words[1], "a count", 1, 1000000) : 1;
        if (action == "fail" && (words[0] == "service" || words[0] == "connect")) {
            command = {{"op", words[0] == "service" ? "failService" : "failConnect"},
                       {"count", count}};
        } else {
            command = {{"op", action}, {"msgId", messageIdOf(words[0])}, {"count", count}};
        }
        done = (action == "fail" ? "the next " : "no answer to the next ") + std::to_string(count) +
               " " + words[0] + (action == "fail" ? " will fail" : "");
    } else if (action == "send") {
        command = indication(words);
        done = "sent " + words[0];
    } else {
        throw UsageError("unknown modem action " + quote(action) +
                         " (restart|reset|down|up|status|fail|timeout|clear|send)");
    }
    mSession.call(command);
    if (action == "restart" || action == "reset" || action == "up") mContext.resyncLibrary();
    if (action == "down" && mSession.libraryStarted()) {
        client::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
    }
    const auto status = mSession.status();
    const int profiles = status.value("profiles", 0);
    if (mGlobals.json) {
        printJson(mOut, {{"modem", action},
                         {"serviceUp", status.value("serviceUp", false)},
                         {"profiles", profiles}});
    } else if (action == "restart" || action == "reset") {
        mOut << "modem " << done << ": " << profiles << " profiles on the modem\n";
    } else {
        mOut << "modem: " << done << "\n";
    }
    return kOk;
}

int ModemCommands::managerModem(const std::vector<std::string>& words) {
    if (words[0] == "status") {
        if (words.size() > 1) throw UsageError("unexpected argument " + quote(words[1]));
        auto status = mSession.status();
        if (mGlobals.json) {
            printJson(mOut, ordered_json(status));
            return kOk;
        }
        mOut << "service:   " << (status.value("serviceUp", false) ? "up" : "down") << "\n";
        if (status.value("serviceUp", false)) {
            mOut << "modem:     " << status.value("path", std::string()) << "\n"
                 << "imei:      " << status.value("equipmentId", std::string()) << "\n"
                 << "device:    " << status.value("deviceId", std::string()) << "\n"
                 << "sim:       " << status.value("sim", std::string()) << "\n"
                 << "profiles:  " << status.value("profiles", 0) << "\n";
        }
        return kOk;
    }
    mSession.status();  // the client looks at the bus
    std::string identifier = mGlobals.modemManagerId;
    if (auto found = xalmm::chosenModem()) {
        identifier = found->equipmentId.empty() ? found->deviceId : found->equipmentId;
    }
    if (identifier.empty() && words[0] != "daemon-back" && words[0] != "daemon-gone") {
        throw Refused("no modem on the modem manager to act on");
    }
    const std::string done = ManagerControl(xalmm::busAddress()).run(identifier, words);
    const std::string action = words[0];
    const bool back = action == "daemon-back" || action == "reexport" || action == "swap-sim" ||
                      (action == "state" && std::stoi(words[1]) >= 6);
    if (back) {
        mContext.resyncLibrary();
    } else if (mSession.libraryStarted()) {
        client::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
    }
    if (mGlobals.json) {
        printJson(mOut, {{"modem", action}, {"done", done}});
    } else {
        mOut << "modem: " << done << "\n";
    }
    return kOk;
}

}  // namespace kivctl
