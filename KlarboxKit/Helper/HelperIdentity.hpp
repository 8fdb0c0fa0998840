#pragma once

#include <string>
#include <string_view>

/// Who the application and its privileged helper are: what each checks of the other.
namespace klarbox::HelperIdentity {

inline constexpr std::string_view appBundleID = "app.klarbox.Klarbox";
inline constexpr std::string_view helperBundleID = "app.klarbox.Klarbox.Helper";
inline constexpr std::string_view launchdLabel = "app.klarbox.Klarbox.SystemHelper";
inline constexpr std::string_view machServiceName = launchdLabel;
inline constexpr std::string_view launchdPlistName = "app.klarbox.Klarbox.SystemHelper.plist";
/// The organisational unit of the certificates that sign both programs.
inline constexpr std::string_view teamID = "K7L4R9B0X2";

/// The group of the installed application's executable, which is set-group-ID. Where a machine has
/// the group, the helper serves no copy of the application that runs without it.
inline constexpr const char *clientGroup = "klarbox";

/// What the helper requires of whoever connects.
const std::string &appRequirement();
/// What the application requires of what it connects to.
const std::string &helperRequirement();

/// Whether the signature of the running program satisfies `appRequirement`, so that the helper will
/// accept it.
bool currentProcessCanUseHelper();

} // namespace klarbox::HelperIdentity
