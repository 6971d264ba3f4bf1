#include "PolicyCommands.h"

#include <android-base/strings.h>

#include <algorithm>
#include <list>
#include <map>

#include "ApnsConf.h"
#include "ProfileOptions.h"
#include "Rehearsal.h"
#include "common/Errors.h"
#include "xal/wds_v01.h"

namespace kivctl {

using kiv::FilterProfileParams;
using kiv::ProfileParams;
using kiv::TechType;
using nlohmann::ordered_json;

PolicyCommands::Snapshot PolicyCommands::snapshot() {
    Snapshot all;
    for (const auto& key : manager().filter(FilterProfileParams())) {
        if (auto params = manager().getProfile(key)) {
            all[{key->getTechType(), key->getProfileId()}] = *params;
        }
    }
    return all;
}

CommandContext::Outcome PolicyCommands::policyOutcome(const std::shared_ptr<kiv::IProfileKey>& key,
                                                      const ProfileParams& asked,
                                                      const Snapshot& before) {
    CommandContext::Outcome outcome;
    if (!key) return outcome;
    const auto now = manager().getProfile(key);
    if (!now) return outcome;
    auto shown = [](const ShownField& field, const ProfileParams& params) {
        return field.text(params).value_or("-");
    };
    const auto was = before.find({key->getTechType(), key->getProfileId()});
    const bool created = was == before.end();
    outcome.json["created"] = created;
    outcome.json["changed"] = ordered_json::array();
    outcome.json["notAsAsked"] = ordered_json::array();
    if (created) {
        const bool temporary = !now->getIsIAProfile() && mContext.command() == "data-call";
        outcome.json["temporary"] = temporary;
        outcome.lines.push_back(std::string("created") +
                                (!temporary ? ", persistent"
                                 : mInShell ? ", temporary: it goes when its handle is dropped"
                                            : ", temporary: it goes when this command ends"));
    } else {
        std::string changes;
        for (const auto& field : shownFields()) {
            if (field.same(was->second, *now)) continue;
            outcome.json["changed"].push_back({{"field", field.name},
                                               {"before", shown(field, was->second)},
                                               {"after", shown(field, *now)}});
            changes += std::string(changes.empty() ? "" : ", ") + field.name + " " +
                       shown(field, was->second) + " -> " + shown(field, *now);
        }
        if (!changes.empty()) outcome.lines.push_back("changed: " + changes);
    }
    // What was asked for and the profile does not hold: the library's rules
    // chose it all the same.
    ProfileParams wanted = asked;
    if (wanted.hasApnName()) wanted.setApnName(normalizedApn(wanted.getApnName()));
    std::string unmet;
    bool anything = false;
    for (const auto& field : shownFields()) {
        if (!field.text(wanted)) continue;
        anything = true;
        if (field.same(wanted, *now)) continue;
        outcome.json["notAsAsked"].push_back({{"field", field.name},
                                              {"asked", shown(field, wanted)},
                                              {"holds", shown(field, *now)}});
        unmet += std::string(unmet.empty() ? "" : ", ") + field.name + " " + shown(field, wanted) +
                 " (it holds " + shown(field, *now) + ")";
    }
    if (!unmet.empty()) {
        outcome.lines.push_back("not as asked: " + unmet + "; the library's rules chose it");
    }
    if (!anything && !created) {
        outcome.lines.push_back(
                "no profile options given: the first profile the library's rules accept");
    }
    return outcome;
}

int PolicyCommands::runPolicy(
        const Arguments& args, TechType tech, const std::string& action,
        const std::function<std::shared_ptr<kiv::IProfileKey>(const ProfileParams& params)>&
                findOrCreate) {
    mSession.util().setProfileUpdateAllowed(args.has("--allow-update"));
    ProfileParams params;
    readProfileOptions(args, params, tech);
    mContext.learnSecrets(params);
    const Snapshot before = snapshot();
    const auto key = findOrCreate(params);
    const CommandContext::Outcome outcome = policyOutcome(key, params, before);
    return mContext.report(action, key, nullptr, &outcome);
}

int PolicyCommands::attach(const Arguments& args) {
    return runPolicy(args, TechType::TECH_3GPP, "attach profile", [this](const auto& params) {
        return mSession.util().findOrCreateProfileForLteAttach(params);
    });
}

int PolicyCommands::dataCall(const Arguments& args) {
    const TechType tech = techOption(args).value_or(TechType::TECH_3GPP);
    return runPolicy(args, tech, "data-call profile", [this, tech](const auto& params) {
        return mSession.util().findOrCreateProfileForSetupDataCall(tech, params);
    });
}

int PolicyCommands::emergency(const Arguments& args) {
    return runPolicy(args, TechType::TECH_3GPP, "emergency profile", [this](const auto& params) {
        return mSession.util().findOrCreateProfileForEmergencyDataCall(params);
    });
}

namespace {

// Each profile's APN types as the library sees them, by (tech, id).
struct TypesBefore {
    int id;
    TechType tech;
    std::string apn;
    std::optional<uint32_t> types;
};

std::vector<TypesBefore> typesOfEveryProfile(kiv::Manager& manager) {
    std::vector<TypesBefore> all;
    for (const auto& key : manager.filter(FilterProfileParams())) {
        TypesBefore entry{key->getProfileId(), key->getTechType(), "", std::nullopt};
        if (auto params = manager.getProfile(key)) {
            entry.apn = params->getApnName();
            if (params->hasApnTypesMask()) entry.types = params->getApnTypesMask();
        }
        all.push_back(entry);
    }
    std::sort(all.begin(), all.end(), [](const TypesBefore& a, const TypesBefore& b) {
        return std::make_pair(a.tech, a.id) < std::make_pair(b.tech, b.id);
    });
    return all;
}

}  // namespace

int PolicyCommands::applyApns(const Arguments& args) {
    const auto mcc = args.value("--mcc");
    const auto mnc = args.value("--mnc");
    if (!mcc || !mnc) throw UsageError("apply-apns needs --mcc and --mnc");
    const std::string& path = args.positionals()[0];
    CarrierSelection selection{*mcc, *mnc, {}};
    // What a SIM can report: digits for the IMSI (at most 15) and ICCID (at
    // most 22), hex digits for GID1.
    auto sim = [&](const char* option, const char* digits, size_t most) {
        auto value = args.value(option);
        if (value &&
            (value->size() > most || value->find_first_not_of(digits) != std::string::npos)) {
            throw UsageError("bad value " + quote(*value) + " for " + option + " (at most " +
                             std::to_string(most) +
                             (std::string(digits).size() > 10 ? " hex digits)" : " digits)"));
        }
        return value;
    };
    selection.sim.imsi = sim("--imsi", "0123456789", 15);
    selection.sim.gid1 = sim("--gid1", "0123456789abcdefABCDEF", 32);
    selection.sim.iccid = sim("--iccid", "0123456789", 22);
    if (auto spn = args.value("--spn")) {
        selection.sim.spn = spn;
        readTextOption(*spn, "--spn", 16 * 4);  // 16 characters of UTF-8 at most
    }
    const bool dryRun = args.has("--dry-run");
    mSession.util().setProfileUpdateAllowed(args.has("--allow-update"));

    const ApnsConfResult read = ApnsConf::read(path, selection);
    if (!read.ok) throw UsageError(read.error);
    for (const auto& warning : read.warnings)
        mErr << "kivctl: warning: " << printable(warning) << "\n";
    const std::string carrier = *mcc + "/" + *mnc;
    if (read.entries.empty()) {
        if (!read.mvnoTypes.empty() && selection.sim.empty()) {
            static const std::map<std::string, std::string> kOptionFor = {
                    {"spn", "--spn NAME"},
                    {"imsi", "--imsi IMSI"},
                    {"gid", "--gid1 HEX"},
                    {"iccid", "--iccid ICCID"}};
            std::string needed;
            for (const auto& type : read.mvnoTypes) {
                auto it = kOptionFor.find(type);
                needed += (needed.empty() ? "" : ", ") +
                          (it != kOptionFor.end() ? it->second : "(mvno_type " + quote(type) + ")");
            }
            throw UsageError("carrier " + carrier + " has only MVNO entries in " + path +
                             ": name the SIM with " + needed);
        }
        throw UsageError("no entries for carrier " + carrier + " in " + path +
                         (read.mvnoTypes.empty() ? "" : " that match the SIM"));
    }
    std::list<ProfileParams> records;
    for (const auto& entry : read.entries) records.push_back(entry.params);

    const auto before = typesOfEveryProfile(manager());
    auto& ledger = mSession.ledger();
    const size_t accepted = ledger.accepted(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01);
    std::optional<Rehearsal> rehearsal;
    if (dryRun) rehearsal.emplace();
    mSession.util().updateAPNTypeBitmaskOnModemProfile(records);
    const size_t updates = ledger.accepted(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01) - accepted;
    auto after = typesOfEveryProfile(manager());
    if (dryRun) {
        rehearsal.reset();
        // The library took the rehearsed changes for done: it reads the table again.
        mSession.settle();
        const auto reading = ledger.reading();
        manager().refresh(kiv::PDC_REFRESH_COMPLETED);
    }

    mContext.requireAnswered();
    int skipped = 0;
    for (const auto& [reason, count] : read.skipped) skipped += count;
    const size_t anyType = static_cast<size_t>(std::count_if(
            read.entries.begin(), read.entries.end(), [](const ApnEntry& e) { return e.anyType; }));
    if (mGlobals.json) {
        ordered_json profiles = ordered_json::array();
        for (size_t i = 0; i < before.size() && i < after.size(); ++i) {
            auto types = [](const std::optional<uint32_t>& mask) {
                return mask ? ordered_json(typeNames(*mask)) : ordered_json();
            };
            profiles.push_back({{"id", before[i].id},
                                {"tech", techName(before[i].tech)},
                                {"apn", before[i].apn},
                                {"typesBefore", types(before[i].types)},
                                {"typesAfter", types(after[i].types)}});
        }
        printJson(mOut, {{"carrier", carrier},
                         {"used", read.entries.size()},
                         {"skipped", read.skipped},
                         {"warnings", read.warnings.size()},
                         {"anyType", anyType},
                         {"profilesUpdated", updates},
                         {"dryRun", dryRun},
                         {"profiles", profiles}});
        return kOk;
    }
    mOut << "carrier " << carrier << ": used " << read.entries.size() << " of " << read.total
         << " entries, skipped " << skipped;
    bool first = true;
    for (const auto& [reason, count] : read.skipped) {
        mOut << (first ? " (" : ", ") << count << " " << reason;
        first = false;
    }
    mOut << (read.skipped.empty() ? "" : ")") << "; " << plural(read.warnings.size(), "warning")
         << "\n";
    if (anyType != 0) {
        mOut << anyType << (anyType == 1 ? " entry" : " entries")
             << " with the type * or none, read as every type but "
             << "ia and emergency (as Android does)\n";
    }
    mOut << "modem profiles " << (dryRun ? "that would be updated: " : "updated: ") << updates
         << "\n";
    std::vector<std::vector<std::string>> rows = {
            {"ID", "TECH", "APN", "TYPES BEFORE", "TYPES AFTER"}};
    for (size_t i = 0; i < before.size() && i < after.size(); ++i) {
        auto names = [](const std::optional<uint32_t>& mask) {
            if (!mask) return std::string("-");
            const auto list = typeNames(*mask);
            return list.empty() ? std::string("-") : android::base::Join(list, ',');
        };
        rows.push_back({std::to_string(before[i].id), techName(before[i].tech),
                        printable(before[i].apn), names(before[i].types), names(after[i].types)});
    }
    printTable(mOut, rows);
    if (dryRun) mOut << "(a dry run: nothing was written to the modem)\n";
    return kOk;
}

}  // namespace kivctl
