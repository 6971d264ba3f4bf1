#include "ProfileCommands.h"

#include <algorithm>

#include "ProfileOptions.h"
#include "common/Errors.h"

namespace kivctl {

using kiv::FilterProfileParams;
using kiv::ProfileParams;
using kiv::TechType;
using nlohmann::ordered_json;

int ProfileCommands::list(const Arguments&) {
    return mContext.printViews(mContext.viewsOf({FilterProfileParams()}, /*keepHandles=*/false));
}

int ProfileCommands::show(const Arguments& args) {
    const ProfileView v = mSession.view(mContext.resolve(args.positionals()[0], techOption(args)),
                                        mSession.modemProfiles());
    nlohmann::json held = nlohmann::json::object();
    for (const auto& profile : mSession.modemProfiles()) {
        if (profile.value("type", "") == techName(v.tech) && profile.value("index", 0) == v.id) {
            held = profile;
        }
    }
    held.erase("type");
    held.erase("index");
    held = withoutSecrets(held);
    if (mGlobals.json) {
        printJson(mOut, {{"profile", profileJson(v)}, {"modem", held}});
    } else {
        printProfile(mOut, v, held);
    }
    return kOk;
}

int ProfileCommands::add(const Arguments& args) {
    const TechType tech = techOption(args).value_or(TechType::TECH_3GPP);
    if (tech == TechType::TECH_3GPP2 && args.has("--attach")) {
        throw UsageError("option --attach is not for 3GPP2 profiles");
    }
    ProfileParams params;
    readProfileOptions(args, params, tech);
    mContext.learnSecrets(params);
    const kiv::AddProfileParams add(params, !args.has("--temporary"), tech, args.has("--attach"));
    return mContext.report("added", manager().addProfile(add), &params);
}

int ProfileCommands::modify(const Arguments& args) {
    auto key = mContext.resolve(args.positionals()[0], techOption(args));
    kiv::ModifyProfileParams params;
    readProfileOptions(args, params, key->getTechType());
    mContext.learnSecrets(params);
    if (!manager().modifyProfile(params, key)) {
        throw Refused("modify: the library no longer knows profile " +
                      std::to_string(key->getProfileId()));
    }
    return mContext.report("modified", key);
}

int ProfileCommands::remove(const Arguments& args) {
    auto key = mContext.resolve(args.positionals()[0], techOption(args));
    const int id = key->getProfileId();
    const TechType tech = key->getTechType();
    if (!manager().deleteProfile(key)) {
        throw Refused("delete: the modem refused to delete profile " + std::to_string(id) +
                      " (or the library no longer knows it)");
    }
    if (mGlobals.json) {
        printJson(mOut, {{"action", "deleted"}, {"id", id}, {"tech", techName(tech)}});
    } else {
        mOut << "deleted: profile " << id << " (" << techName(tech) << ")\n";
    }
    return kOk;
}

int ProfileCommands::find(const Arguments& args) {
    FilterProfileParams filter;
    readFilterOptions(args, filter);
    mContext.learnSecrets(filter);
    std::vector<FilterProfileParams> filters = {filter};
    // 3GPP2 profiles carry no names: none is the library's by its name, nor
    // an attach profile, so "no" to either is every 3GPP2 profile that
    // matches the rest (the library's own rule leaves them all out).
    const bool notNamed = args.value("--kiv") == std::optional<std::string>("no") ||
                          args.value("--attach-profile") == std::optional<std::string>("no");
    const auto tech = techOption(args);
    if (notNamed && tech != TechType::TECH_3GPP) {
        FilterProfileParams threeGpp2;
        readFilterOptions(args, threeGpp2, /*ignoreNames=*/true);
        threeGpp2.setFilterByTechType(TechType::TECH_3GPP2);
        filter.setFilterByTechType(TechType::TECH_3GPP);
        filters = tech ? std::vector<FilterProfileParams>{threeGpp2}
                       : std::vector<FilterProfileParams>{filter, threeGpp2};
    }
    return mContext.printViews(
            mContext.viewsOf(filters, /*keepHandles=*/mInShell,
                             [&](const ProfileView& view) { return heldOff(args, view.params); }));
}

int ProfileCommands::dump(const Arguments&) {
    // The library's lines carry passwords (unless it was built secret-free).
    std::vector<std::string> lines;
    for (const auto& line : manager().dump()) lines.push_back(mSession.secrets().hide(line));
    if (mGlobals.json) {
        printJson(mOut, {{"dump", lines}});
    } else {
        for (const auto& line : lines) mOut << printable(line) << "\n";
    }
    return kOk;
}

int ProfileCommands::reclaim(const Arguments& args) {
    const bool dryRun = args.has("--dry-run");
    if (!mGlobals.modemSocket.empty() || mGlobals.modemManager) {
        // Other processes on the modem may still hold what it would take.
        const char* where =
                mGlobals.modemManager ? "the modem manager's modem" : "the modem service";
        if (!dryRun && !args.has("--force")) {
            throw UsageError(std::string("reclaim on ") + where +
                             " deletes every client's temporary profiles, those of processes "
                             "that still hold them too: --dry-run lists them, --force deletes "
                             "them");
        }
        mErr << "kivctl: warning: on " << where
             << " this reclaims every client's temporary profiles, not only kivctl's\n";
    }
    // Handles kept in the shell are live keys: their profiles stay.
    const auto reclaimed = mSession.util().reclaimTemporaryProfiles(dryRun);
    std::vector<ProfileView> views;
    for (const auto& profile : reclaimed) {
        ProfileView view;
        view.id = profile.profileId;
        view.tech = profile.techType;
        view.params = profile.params;
        views.push_back(view);
    }
    if (mGlobals.json) {
        ordered_json list = ordered_json::array();
        for (const auto& view : views) list.push_back(profileJson(view));
        printJson(mOut, {{"reclaimed", list}, {"dryRun", dryRun}});
        return kOk;
    }
    mOut << plural(views.size(), "temporary profile") << (dryRun ? " would be deleted" : " deleted")
         << (views.empty() ? "\n" : ":\n");
    if (!views.empty()) printProfiles(mOut, views);
    return kOk;
}

}  // namespace kivctl
