#include "KlarboxCLI/ScanCommand.hpp"

#include "KlarboxApp/Documents.hpp"
#include "KlarboxApp/Scan/ScanSession.hpp"
#include "KlarboxCLI/ExitCode.hpp"
#include "KlarboxCLI/Interrupt.hpp"
#include "KlarboxCLI/ProgressLine.hpp"
#include "KlarboxCLI/ScanRemarks.hpp"
#include "KlarboxCLI/ScanTable.hpp"

namespace klarbox {

int runScan(const ScanOptions &options, Interrupt &interrupt) {
    const ScanSession session(options.request());
    const auto progressStyle = OutputStyle::of(stderr, options.color);
    ProgressLine progress(progressStyle, progressStyle.canErase && !options.noProgress);
    const Interrupt::Hook hook(interrupt, [&] { progress.close(); });

    const auto scans = session.scan([&](const ScanActivity &activity) { progress.show(activity); },
                                    interrupt.token());
    progress.clear();
    if (interrupt.wasRequested()) {
        return interrupt.exitCode();
    }
    if (options.json) {
        write(stdout, encodeJSON(scanDocument(scans), 2) + "\n");
    } else {
        const auto obstacles = session.obstacles();
        write(stdout, scanTable(scans, {.style = OutputStyle::of(stdout, options.color),
                                        .obstacles = &obstacles,
                                        .remarks = scanRemarks(session, scans)}));
    }
    return ExitCode::done;
}

} // namespace klarbox
