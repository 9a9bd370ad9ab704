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

bool CResources::PictureSize(UINT id, int* width, int* height) {
    unsigned char head[24] = {};
    const CString path = SkinPath(id);
    bool have = false;
    if (!path.IsEmpty()) {
        if (FILE* f = std::fopen(path, "rb")) {
            have = std::fread(head, 1, sizeof(head), f) == sizeof(head);
            std::fclose(f);
        }
    }
    size_t size = 0;
    if (!have)
        if (const void* data = Find(id, &size); data && size >= sizeof(head)) {
            std::memcpy(head, data, sizeof(head));
            have = true;
        }
    // the signature, then the IHDR chunk: width and height, big-endian
    static const unsigned char kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (!have || std::memcmp(head, kPng, 8) != 0 || std::memcmp(head + 12, "IHDR", 4) != 0)
        return false;
    auto be = [&](int at) {
        return static_cast<int>((uint32_t(head[at]) << 24) | (uint32_t(head[at + 1]) << 16) |
                                (uint32_t(head[at + 2]) << 8) | head[at + 3]);
    };
    *width = be(16);
    *height = be(20);
    return *width > 0 && *height > 0;
}
