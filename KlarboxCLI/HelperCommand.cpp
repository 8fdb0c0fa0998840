#include "KlarboxCLI/HelperCommand.hpp"

#include "KlarboxApp/Privileged/HelperClient.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Helper/HelperIdentity.hpp"
#include "KlarboxKit/Platform/Code.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <fcntl.h>
#include <ostream>

#include <fmt/format.h>

namespace klarbox {

namespace {

const FileURL installedExecutable("/usr/libexec/klarbox/KlarboxHelper");

constexpr std::string_view reinstall = "Install the package klarbox again.";

/// The version of a helper that does not talk to this program; nothing unless its file is
/// correctly signed.
std::optional<std::string> signedVersion(const FileURL &executable,
                                         const XPCConnection::Service &service,
                                         std::string &problem) {
    try {
        const auto required = CodeRequirement::parse(service.requirement);
        const auto information = Code::at(executable).signingInformation(service.anchors);
        if (required && required->isSatisfiedBy(information)) {
            return information.version;
        }
        problem = "It is signed as another program.";
    } catch (const PlatformError &error) {
        problem = error.message();
    }
    return std::nullopt;
}

/// Why the helper turns this program away.
std::string ownProblem(const XPCConnection::Service &service) {
    if (HelperIdentity::currentProcessCanUseHelper()) {
        return "This copy of klarbox is signed, but it is not the installed one.";
    }
    try {
        static_cast<void>(Code::ofCurrentProcess().signingInformation(service.anchors));
        return "This program is signed as another one.";
    } catch (const PlatformError &error) {
        return error.message();
    }
}

} // namespace

HelperStatus helperStatus(const FileURL &executable, const XPCConnection::Service &service) {
    HelperStatus status;
    status.isInstalled = FileManager::isExecutableFile(executable);
    try {
        const XPCConnection connection(service);
        status.isReachable = true;
        status.version = connection.service().version;
        return status;
    } catch (const XPCError &error) {
        status.isReachable = error.kind() != XPCError::Kind::unreachable;
        status.problem = error.message();
        if (error.kind() == XPCError::Kind::unverified) {
            status.remedy = reinstall;
            return status;
        }
        if (error.kind() == XPCError::Kind::silent) {
            status.remedy = fmt::format("Restart it: sudo systemctl restart {}.service",
                                        HelperIdentity::launchdLabel);
            return status;
        }
    }
    if (!status.isInstalled && !status.isReachable) {
        status.problem = "The helper is not installed.";
        status.remedy = "Install the package klarbox. Without the helper everything works but the "
                        "removal of files that belong to the system.";
        return status;
    }
    if (status.isInstalled) {
        std::string signatureProblem;
        status.version = signedVersion(executable, service, signatureProblem);
        if (!status.version) {
            status.problem = signatureProblem;
            status.remedy = reinstall;
            return status;
        }
    }
    if (!status.isReachable) {
        status.remedy = fmt::format("Start it: sudo systemctl enable --now {}.socket",
                                    HelperIdentity::launchdLabel);
    } else {
        status.problem = ownProblem(service);
        status.remedy = "Use the installed klarbox, or install the package klarbox again.";
    }
    return status;
}

int printHelperStatus(std::ostream &out, const HelperStatus &status) {
    const auto line = [&](std::string_view label, std::string_view value) {
        out << fmt::format("{:<12}{}\n", label, value);
    };
    const auto yesOrNo = [](bool holds) { return holds ? "yes" : "no"; };
    line("Installed", yesOrNo(status.isInstalled));
    line("Reachable", yesOrNo(status.isReachable));
    line("Signed", yesOrNo(status.version.has_value()));
    line("Usable", yesOrNo(status.problem.empty()));
    if (status.version) {
        line("Version", Text::visible(*status.version));
    }
    if (!status.problem.empty()) {
        out << '\n' << Text::visible(status.problem) << '\n' << status.remedy << '\n';
    }
    return status.problem.empty() ? 0 : 1;
}

int runHelperCommand(std::ostream &out) {
    return printHelperStatus(out,
                             helperStatus(installedExecutable, HelperClient::installedHelper()));
}

} // namespace klarbox
