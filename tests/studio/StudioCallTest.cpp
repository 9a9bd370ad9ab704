// morvane-studio.so from a process that is not morvane: it loads, as it takes nothing from
// morvane's executable, and refuses a call of another version having read only its version.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

#include "MorvaneStudio.h"

namespace {

TEST(StudioCall, LoadsOutsideMorvaneAndRefusesAnotherVersion) {
    void* library = dlopen(MORVANE_STUDIO, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    const auto run = reinterpret_cast<MorvaneStudioEntry>(dlsym(library, "MorvaneStudioRun"));
    ASSERT_NE(nullptr, run);

    // a later morvane's call: nothing after the version is what this window would expect
    MorvaneStudioCall call{};
    call.version = MORVANE_STUDIO_CALL_VERSION + 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(5, run(&call));
    EXPECT_EQ(5, run(nullptr));
    const std::string said = testing::internal::GetCapturedStderr();
    const std::string mine = std::to_string(MORVANE_STUDIO_CALL_VERSION);
    EXPECT_NE(std::string::npos, said.find("morvane-studio.so takes calls of version " + mine +
                                           ", and this morvane made one of version " +
                                           std::to_string(MORVANE_STUDIO_CALL_VERSION + 1)))
        << said;
    EXPECT_NE(std::string::npos, said.find("made none")) << said;
}

} // namespace
