// The 64 programs: the table the host sees, the initial table edits are judged against, the
// factory table, the host's chunks and the bank file "Morvane.fxb".
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "AMorvane.h"
#include "BankFile.h"
#include "BigEndian.h"
#include "CFile.h"
#include "CReplaceFile.h"
#include "CStringResource.h"
#include "PreferencesFolder.h"

namespace {

constexpr const char* kBankName = "Morvane.fxb";
constexpr int kStrBankNotWritten = 20135;

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Every name ends inside its record, whatever a chunk or a file held.
void Terminate(AMorvaneProgram* programs, size_t count) {
    for (size_t i = 0; i < count; ++i)
        programs[i].szName[sizeof(programs[i].szName) - 1] = 0;
}

} // namespace

// Reads the bank chunk of an "FBCh" bank of this plug-in into 'chunk' (at most the table's size)
// and says how many bytes it holds. Stop: the file is not ours to read (cannot be opened, wrong
// magic, another plug-in's ID). NotChunks: a bank of another kind, nothing to load. CutShort: ours,
// but it ends before its chunk does; 'bytes' counts what is there.
AMorvane::BankRead AMorvane::ReadBank(const char* path, AMorvaneProgram* chunk, size_t* bytes) {
    *bytes = 0;
    CFile file;
    if (!file.Open(path, CFile::modeRead))
        return BankRead::Stop;
    uint32_t magic = 0, ignored = 0, kind = 0;
    if (!getDWordFile(file, &magic) || magic != static_cast<uint32_t>(FourCC("CcnK")))
        return BankRead::Stop;
    if (!getDWordFile(file, &ignored) || !getDWordFile(file, &kind))
        return BankRead::CutShort;
    if (kind != static_cast<uint32_t>(FourCC("FBCh")))
        return BankRead::NotChunks;
    uint32_t id = 0, size = 0;
    if (!getDWordFile(file, &ignored) || !getDWordFile(file, &id))
        return BankRead::CutShort;
    if (id != static_cast<uint32_t>(cEffect.uniqueID))
        return BankRead::Stop;
    if (!getDWordFile(file, &ignored) || !getDWordFile(file, &ignored) ||
        file.Seek(128, CFile::current) < 0 || !getDWordFile(file, &size))
        return BankRead::CutShort;
    // A stored chunk larger than the table is read only as far as the table goes.
    const uint32_t want = std::min<uint32_t>(size, sizeof(m_Programs));
    const uint32_t got = file.Read(chunk, want);
    *bytes = got;
    return got == want ? BankRead::Loaded : BankRead::CutShort;
}

void AMorvane::LoadBanks() {
    GetMy_SHFOLDER_PathName();
    const std::string factory = std::string(m_szPluginDir) + kBankName;
    std::string path = std::string(szGlobalMyApplicationDataPathName) + kBankName;
    if (!szGlobalMyApplicationDataPathName[0] || !Exists(path))
        path = factory; // the factory bank is the first user bank

    AMorvaneProgram chunk[kNumPrograms];
    size_t bytes = 0;
    const BankRead r = ReadBank(path.c_str(), chunk, &bytes);
    if (r == BankRead::Stop)
        return;
    if (r == BankRead::Loaded) {
        setChunk(chunk, static_cast<VstInt32>(bytes), false);
    } else if (r == BankRead::CutShort) {
        // A damaged bank keeps what it still holds whole: its complete records over the factory
        // programs, so neither the user's surviving programs nor the factory ones are lost.
        const size_t whole = bytes / sizeof(AMorvaneProgram) * sizeof(AMorvaneProgram);
        AMorvaneProgram base[kNumPrograms];
        size_t baseBytes = 0;
        if (path != factory && ReadBank(factory.c_str(), base, &baseBytes) == BankRead::Loaded) {
            std::memcpy(base, chunk, whole);
            setChunk(base, static_cast<VstInt32>(std::max(baseBytes, whole)), false);
        } else if (whole > 0) {
            setChunk(chunk, static_cast<VstInt32>(whole), false);
        }
    }
    std::memcpy(m_Initial, m_Programs, sizeof(m_Programs));
    SetFactoryProgram();
}

void AMorvane::SetFactoryProgram() {
    const std::string path = std::string(m_szPluginDir) + kBankName;
    AMorvaneProgram chunk[kNumPrograms];
    size_t bytes = 0;
    if (ReadBank(path.c_str(), chunk, &bytes) != BankRead::Loaded)
        return;
    std::memcpy(m_Factory, chunk, bytes);
    Terminate(m_Factory, kNumPrograms);
}

void AMorvane::setProgram(VstInt32 program) {
    if (program < 0 || program >= kNumPrograms)
        return;
    curProgram = program;
    for (int p = 0; p < kNumParams; ++p)
        setParameter(p, m_Programs[program].fValue[p]);
    EditorModify();
}

void AMorvane::setProgramName(char* name) {
    const size_t n = strnlen(name, 23);
    std::memcpy(m_Programs[curProgram].szName, name, n);
    m_Programs[curProgram].szName[n] = 0;
}

void AMorvane::getProgramName(char* name) {
    vst_strncpy(name, m_Programs[curProgram].szName, kVstMaxProgNameLen);
}

bool AMorvane::getProgramNameIndexed(VstInt32, VstInt32 index, char* text) {
    if (index < 0 || index >= kNumPrograms)
        return false;
    vst_strncpy(text, m_Programs[index].szName, kVstMaxProgNameLen);
    return true;
}

VstInt32 AMorvane::getChunk(void** data, bool isPreset) {
    if (isPreset) {
        *data = &m_Programs[curProgram];
        return sizeof(AMorvaneProgram);
    }
    m_Programs[0].nCurrent = curProgram;
    *data = m_Programs;
    return sizeof(m_Programs);
}

VstInt32 AMorvane::setChunk(void* data, VstInt32 size, bool isPreset) {
    // A chunk larger than the table is cut at the table; a shorter one changes what it covers.
    const size_t n = static_cast<size_t>(std::max<VstInt32>(size, 0));
    if (isPreset) {
        std::memmove(&m_Programs[curProgram], data, std::min(n, sizeof(AMorvaneProgram)));
        Terminate(&m_Programs[curProgram], 1);
        setProgram(curProgram);
        return 0;
    }
    std::memmove(m_Programs, data, std::min(n, sizeof(m_Programs)));
    Terminate(m_Programs, kNumPrograms);
    const int32_t current = m_Programs[0].nCurrent;
    setProgram(current >= 0 && current < kNumPrograms ? current : 0);
    return 0;
}

bool AMorvane::IsProgramChanged() {
    // the five values only; the name is not compared
    return std::memcmp(m_Programs[curProgram].fValue, m_Initial[curProgram].fValue,
                       sizeof(m_Programs[curProgram].fValue)) != 0;
}

void AMorvane::ProgramToInitial() {
    m_Programs[curProgram] = m_Initial[curProgram];
    setProgram(curProgram);
    updateDisplay();
}

void AMorvane::ProgramToAllInitial() {
    std::memcpy(m_Programs, m_Initial, sizeof(m_Programs));
    setProgram(curProgram);
    updateDisplay();
}

void AMorvane::ProgramToFactory() {
    m_Programs[curProgram] = m_Factory[curProgram];
    setProgram(curProgram);
    EditorModify();
    updateDisplay();
}

void AMorvane::ProgramToAllFactory() {
    // Deliberately empty: the panel offers it, and it does nothing.
}

void AMorvane::CopyPgFrom(int source) {
    if (source < 0 || source >= kNumPrograms)
        return;
    m_Programs[curProgram] = m_Programs[source];
    setProgram(curProgram);
    updateDisplay();
}

bool AMorvane::SaveProgram(int destination, const char* name) {
    if (destination < 0 || destination >= kNumPrograms)
        return false;
    GetMy_SHFOLDER_PathName();
    const std::string folder = szGlobalMyApplicationDataPathName;

    AMorvaneProgram& saved = m_Programs[destination];
    saved = m_Programs[curProgram];
    vst_strncpy(saved.szName, name ? name : "", sizeof(saved.szName));
    m_Initial[destination] = saved; // the saved state is the new reference
    m_Programs[curProgram] = m_Initial[curProgram];
    curProgram = destination;
    setProgram(destination);
    m_Programs[0].nCurrent = curProgram;

    // The bank replaces the previous one whole, with its name flushed to the disk, so a failure,
    // a kill or a power cut at any point leaves the previous bank or the new one, and nothing
    // else.
    bool ok = !folder.empty() && MakeFolder(folder.c_str());
    if (ok) {
        CReplaceFile replace;
        CFile file;
        ok = replace.Open(folder + kBankName) && file.OpenDescriptor(replace.Descriptor());
        CReplaceFile::StopAt("write");
        ok = ok &&
             WriteChunkBank(file, static_cast<uint32_t>(cEffect.uniqueID), kNumPrograms, m_Programs,
                            sizeof(m_Programs)) &&
             file.Close() && replace.Commit(true);
    }
    if (!ok)
        Tell(LoadStringResource(kStrBankNotWritten));
    if (audioMaster)
        updateDisplay();
    return ok;
}
