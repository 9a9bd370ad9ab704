#include "CStringResource.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

struct Text {
    int id;
    const char* english;
    const char* japanese; // UTF-8
};

const Text kTexts[] = {
    {20200,
     "Pitch and time together may not exceed 200 % (pitch rate x time rate <= 2). "
     "The other setting was lowered to fit.",
     "ピッチとタイムの積は 2 倍（200 %）を超えられません。もう一方の設定を下げて合わせました。"},
    {20135,
     "The preset bank could not be saved. Check that the settings folder exists and "
     "is writable; the previous bank file is unchanged.",
     "プリセットバンクを保存できませんでした。設定フォルダーが存在し書き込めるか確認してください。"
     "以前のバンクファイルはそのままです。"},
};

bool Japanese() {
    static const bool japanese = [] {
        for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
            const char* value = std::getenv(name);
            if (value && *value)
                return std::strncmp(value, "ja", 2) == 0;
        }
        return false;
    }();
    return japanese;
}

} // namespace

const char* LoadStringResource(int id) {
    for (const Text& t : kTexts)
        if (t.id == id)
            return Japanese() ? t.japanese : t.english;
    return "";
}
