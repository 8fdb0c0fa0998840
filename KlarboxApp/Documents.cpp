#include "KlarboxApp/Documents.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

namespace klarbox {

namespace {

/// Texts and paths from the disk need not be UTF-8; JSON must be.
std::string text(std::string_view bytes) {
    return Text::repairedUTF8(bytes);
}

JSON targetObject(const KlarboxTarget &target) {
    return std::visit(overloaded{
                          [](const KlarboxTarget::Item &item) {
                              return JSON{{"kind", "item"}, {"path", text(item.url.path())}};
                          },
                          [](const KlarboxTarget::Contents &contents) {
                              return JSON{{"kind", "contents"}, {"path", text(contents.of.path())}};
                          },
                          [](const KlarboxTarget::Items &items) {
                              JSON paths = JSON::array();
                              for (const auto &url : items.urls) {
                                  paths.push_back(text(url.path()));
                              }
                              return JSON{{"kind", "items"}, {"paths", std::move(paths)}};
                          },
                          [](const KlarboxTarget::Command &command) {
                              JSON arguments = JSON::array();
                              for (const auto &argument : command.action.arguments) {
                                  arguments.push_back(text(argument));
                              }
                              return JSON{{"kind", "command"},
                                          {"executable", text(command.action.executable.path())},
                                          {"arguments", std::move(arguments)}};
                          },
                      },
                      target.value());
}

JSON itemObject(const KlarboxItem &item) {
    JSON object{{"id", text(item.id)}, {"title", text(item.title)}};
    const auto setIfPresent = [&](const char *key, const std::optional<std::string> &value) {
        if (value) {
            object[key] = text(*value);
        }
    };
    setIfPresent("detail", item.detail);
    object["target"] = targetObject(item.target);
    if (item.allowedRoot) {
        object["allowedRoot"] = text(item.allowedRoot->path());
    }
    object["size"] = item.size;
    object["isSizeEstimate"] = item.isSizeEstimate;
    object["tier"] = rawValue(item.tier);
    setIfPresent("note", item.note);
    object["isSelectedByDefault"] = item.isSelectedByDefault;
    object["removalPolicy"] =
        item.removalPolicy == RemovalPolicy::permanentOnly ? "permanentOnly" : "userChoice";
    setIfPresent("group", item.group);
    object["requiresPrivileges"] = item.requiresPrivileges;
    return object;
}

JSON issueObject(const ScanIssue &issue) {
    return std::visit(
        overloaded{
            [](const ScanIssue::NeedsFullDiskAccess &needs) {
                return JSON{{"kind", "needsFullDiskAccess"}, {"path", text(needs.path)}};
            },
            [](const ScanIssue::Failed &failed) {
                return JSON{{"kind", "failed"}, {"message", text(failed.message)}};
            },
        },
        issue.value());
}

JSON resultObject(const CleanResult &result) {
    return std::visit(
        overloaded{
            [](const CleanResult::Partial &partial) {
                return JSON{{"kind", "partial"}, {"message", text(partial.message)}};
            },
            [](const CleanResult::Failed &failed) {
                return JSON{{"kind", "failed"}, {"message", text(failed.message)}};
            },
            [](const CleanResult::Refused &refused) {
                return JSON{{"kind", "refused"}, {"violation", rawValue(refused.violation)}};
            },
            [](const CleanResult::Removed &) {
                return JSON{{"kind", "removed"}};
            },
            [](const CleanResult::MovedToTrash &) {
                return JSON{{"kind", "movedToTrash"}};
            },
            [](const CleanResult::RanCommand &) {
                return JSON{{"kind", "ranCommand"}};
            },
        },
        result.value());
}

} // namespace

JSON scanDocument(const std::vector<CategoryScan> &scans) {
    JSON categories = JSON::array();
    for (const auto &scan : scans) {
        JSON items = JSON::array();
        for (const auto &item : scan.items) {
            items.push_back(itemObject(item));
        }
        JSON issues = JSON::array();
        for (const auto &issue : scan.issues) {
            issues.push_back(issueObject(issue));
        }
        categories.push_back(JSON{{"id", scan.info.id},
                                  {"title", scan.info.title},
                                  {"summary", scan.info.summary},
                                  {"symbol", scan.info.symbol},
                                  {"section", rawValue(scan.info.section)},
                                  {"totalSize", scan.totalSize()},
                                  {"items", std::move(items)},
                                  {"issues", std::move(issues)}});
    }
    return JSON{{"categories", std::move(categories)}};
}

JSON cleanDocument(const CleanReport &report) {
    JSON outcomes = JSON::array();
    for (const auto &outcome : report.outcomes) {
        outcomes.push_back(JSON{{"id", text(outcome.id)},
                                {"title", text(outcome.title)},
                                {"result", resultObject(outcome.result)},
                                {"bytes", outcome.bytes},
                                {"wentToTrash", outcome.wentToTrash}});
    }
    JSON failures = JSON::array();
    for (const auto &outcome : report.failures()) {
        failures.push_back(text(outcome.id));
    }
    return JSON{{"outcomes", std::move(outcomes)},
                {"freedBytes", report.freedBytes()},
                {"trashedBytes", report.trashedBytes()},
                {"failures", std::move(failures)}};
}

} // namespace klarbox
