#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// "trash": the person's Trash at home and the one on every other mounted volume, each by its
/// contents and only ever permanently.
class TrashScanner final : public CategoryScanner {
public:
    /// `volumesDirectory` is the folder whose entries are the mounted volumes.
    explicit TrashScanner(FileURL volumesDirectory)
        : volumesDirectory_(std::move(volumesDirectory)) {}

    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;

private:
    void addHomeTrash(const ScanContext &context, CategoryScan &scan) const;
    /// `place` is where the folder really lies: there it is measured.
    void addTrash(const FileURL &folder, const FileURL &place, std::string title,
                  const ScanContext &context, CategoryScan &scan) const;

    FileURL volumesDirectory_;
};

} // namespace klarbox
