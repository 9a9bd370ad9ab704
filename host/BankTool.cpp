#include "BankTool.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "BankFile.h"
#include "CFile.h"
#include "CReplaceFile.h"
#include "MorvaneParameters.h"
#include "RenderJob.h"

namespace {

uint32_t BigEndian(const std::vector<unsigned char>& b, size_t at) {
    return (uint32_t(b[at]) << 24) | (uint32_t(b[at + 1]) << 16) | (uint32_t(b[at + 2]) << 8) |
           b[at + 3];
}

std::string UserBankPath() {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    if (xdg && *xdg)
        return std::string(xdg) + "/Morvane.fxb";
    if (home && *home)
        return std::string(home) + "/.config/Morvane.fxb";
    throw OutputError("no preferences folder: set XDG_CONFIG_HOME or HOME");
}

} // namespace

BankTool::BankTool(const std::string& pluginPath) try : m_plugin(pluginPath) {
    m_plugin.Dispatch(effOpen);
} catch (const std::exception& e) {
    throw PluginError(e.what());
}

void BankTool::Load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw InputError("cannot read " + path);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), {});
    const AEffect* e = m_plugin.Effect();
    if (bytes.size() < 160 || BigEndian(bytes, 0) != uint32_t(FourCC("CcnK")) ||
        BigEndian(bytes, 8) != uint32_t(FourCC("FBCh")))
        throw InputError(path + " is not a chunk bank (.fxb)");
    if (BigEndian(bytes, 16) != uint32_t(e->uniqueID))
        throw InputError(path + " belongs to another plug-in");
    const uint32_t size = BigEndian(bytes, 156);
    if (size == 0 || bytes.size() - 160 < size)
        throw InputError(path + " is cut short");
    m_plugin.Dispatch(effSetChunk, 0, static_cast<VstIntPtr>(size), bytes.data() + 160);
}

void BankTool::Write(const std::string& path) {
    void* chunk = nullptr;
    const VstIntPtr size = m_plugin.Dispatch(effGetChunk, 0, 0, &chunk);
    if (size <= 0 || !chunk)
        throw PluginError("the plug-in gave no bank");
    // Replaced whole or not at all, and flushed with its name, as the plug-in saves it.
    CReplaceFile file;
    CFile out;
    bool ok = file.Open(path) && out.OpenDescriptor(file.Descriptor());
    CReplaceFile::StopAt("write");
    ok = ok &&
         WriteChunkBank(out, static_cast<uint32_t>(m_plugin.Effect()->uniqueID),
                        static_cast<uint32_t>(m_plugin.Effect()->numPrograms), chunk,
                        static_cast<uint32_t>(size)) &&
         out.Close() && file.Commit(true);
    if (!ok)
        throw OutputError("cannot write " + path);
}

void BankTool::List(const std::string& path) {
    using namespace MorvaneParameters;
    Load(path);
    const int programs = m_plugin.Effect()->numPrograms;
    for (int i = 0; i < programs; ++i) {
        // Pitch is applied before time: the lowest time rate first leaves room for any pitch.
        m_plugin.SetParameter(kTime, static_cast<float>(kRateMin));
        m_plugin.Dispatch(effSetProgram, 0, i);
        std::printf("%3d  %-24s time %8s %%  pitch %8s cent  level %6s dB\n", i + 1,
                    m_plugin.Text(effGetProgramName).c_str(),
                    m_plugin.Text(effGetParamDisplay, kTime).c_str(),
                    m_plugin.Text(effGetParamDisplay, kPitch).c_str(),
                    m_plugin.Text(effGetParamDisplay, kOutput).c_str());
    }
}

void BankTool::Export(const std::string& path) {
    Write(path);
}

void BankTool::Import(const std::string& path) {
    Load(path);
    Write(UserBankPath());
}
