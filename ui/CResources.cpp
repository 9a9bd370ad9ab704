#include "CResources.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex gLock;
std::vector<ResourceEntry>& Table() {
    static std::vector<ResourceEntry> table;
    return table;
}
std::string gSkinFolder;

bool Exists(const std::string& path) {
    return access(path.c_str(), R_OK) == 0;
}

} // namespace

void CResources::Register(const ResourceEntry* entries, size_t count) {
    std::lock_guard lock(gLock);
    Table().insert(Table().end(), entries, entries + count);
}

const void* CResources::FindNamed(const char* name, size_t* size) {
    std::lock_guard lock(gLock);
    for (const ResourceEntry& e : Table())
        if (std::strcmp(e.name, name) == 0) {
            if (size)
                *size = e.size;
            return e.data;
        }
    return nullptr;
}

const void* CResources::Find(UINT id, size_t* size) {
    char name[32];
    std::snprintf(name, sizeof(name), "%u.png", id);
    return FindNamed(name, size);
}

CString CResources::ModuleDirectory() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(&CResources::ModuleDirectory), &info) || !info.dli_fname)
        return CString();
    std::string path = info.dli_fname;
    const size_t slash = path.rfind('/');
    return CString(slash == std::string::npos ? "./" : path.substr(0, slash + 1).c_str());
}

CString CResources::SkinFolder() {
    {
        std::lock_guard lock(gLock);
        if (!gSkinFolder.empty())
            return CString(gSkinFolder.c_str());
    }
    return ModuleDirectory() + kSkinFolderName + "/";
}

void CResources::SetSkinFolder(const char* folder) {
    std::lock_guard lock(gLock);
    gSkinFolder = folder ? folder : "";
    if (!gSkinFolder.empty() && gSkinFolder.back() != '/')
        gSkinFolder += '/';
}

CString CResources::SkinPath(UINT id) {
    CString path = getResourcePath(static_cast<int>(id), kBundleIdentifier);
    if (!path.IsEmpty())
        return path;
    char name[32];
    std::snprintf(name, sizeof(name), "%u.png", id);
    const std::string plain = std::string(static_cast<const char*>(SkinFolder())) + name;
    return Exists(plain) ? CString(plain.c_str()) : CString();
}

CString getResourcePath(int id, const char* bundleIdentifier) {
    if (!bundleIdentifier || std::strcmp(bundleIdentifier, CResources::kBundleIdentifier) != 0)
        return CString();
    char name[32];
    if (id < 0 ||
        std::snprintf(name, sizeof(name), "bmp%05d.png", id) >= static_cast<int>(sizeof(name)))
        return CString();
    const std::string path = std::string(static_cast<const char*>(CResources::SkinFolder())) + name;
    return Exists(path) ? CString(path.c_str()) : CString();
}
