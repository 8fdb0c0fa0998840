#include "KlarboxCLI/ScanCommand.hpp"

#include "KlarboxCLI/Interrupt.hpp"
#include "KlarboxCLI/ProgressLine.hpp"
#include "KlarboxCLI/ScanDocument.hpp"
#include "KlarboxCLI/ScanSession.hpp"
#include "KlarboxCLI/ScanTable.hpp"
#include "KlarboxCLI/UsageError.hpp"

namespace klarbox {

int runScan(const ScanOptions &options, Interrupt &interrupt) {
    const ScanSession session(options);
    const auto progressStyle = OutputStyle::of(stderr, options.color);
    ProgressLine progress(progressStyle, progressStyle.canErase && !options.noProgress);
    const Interrupt::Hook hook(interrupt, [&] { progress.close(); });

    const auto scans = session.scan(progress, interrupt.token());
    if (interrupt.wasRequested()) {
        return interrupt.exitCode();
    }
    if (options.json) {
        write(stdout, encodeJSON(scanDocument(scans), 2) + "\n");
    } else {
        const auto obstacles = session.obstacles();
        write(stdout, scanTable(scans, {.style = OutputStyle::of(stdout, options.color),
                                        .obstacles = &obstacles,
                                        .remarks = session.remarks(scans)}));
    }
    return ExitCode::done;
}

} // namespace klarbox
