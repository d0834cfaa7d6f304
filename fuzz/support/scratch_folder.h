// Process-wide set-up shared by the harnesses: a scratch folder of their own
// and an SDK that neither prints nor touches the user's real defaults store.
#pragma once

#include <filesystem>

namespace tellora::fuzzing {

// A fresh folder under the temporary directory ($TMPDIR), made on first use and
// removed when the process exits normally.
const std::filesystem::path& scratchFolder();

// Discards every log line and points the standard defaults store at the scratch
// folder, with the "debug" switch set as asked (on: the debug-only log sites
// format their lines too). Call once, from LLVMFuzzerInitialize.
void prepareQuietSdk(bool debug);

}  // namespace tellora::fuzzing
