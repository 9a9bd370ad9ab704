// Writes the factory bank Morvane.fxb from the readable table factory-programs.tsv, in exactly
// the format the plug-in reads: usage  make_factory_bank TABLE OUTPUT
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "AMorvaneProgram.h"
#include "BankFile.h"
#include "CFile.h"
#include "MorvaneParameters.h"
#include "ParamRange.h"

using namespace MorvaneParameters;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s TABLE OUTPUT\n", argv[0]);
        return 2;
    }
    std::ifstream table(argv[1]);
    if (!table) {
        std::fprintf(stderr, "cannot read %s\n", argv[1]);
        return 1;
    }
    std::vector<AMorvaneProgram> bank;
    std::string line;
    for (int number = 1; std::getline(table, line); ++number) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        std::string name, time, cents, level;
        if (!std::getline(fields, name, '\t') || !std::getline(fields, time, '\t') ||
            !std::getline(fields, cents, '\t') || !std::getline(fields, level)) {
            std::fprintf(stderr, "%s:%d: want name, time %%, cents, level\n", argv[1], number);
            return 1;
        }
        const double t = std::stod(time) / 100, p = std::pow(2.0, std::stod(cents) / 1200);
        const double gain = std::pow(2.0, std::stod(level) / 6);
        if (name.size() > 23 || t < kRateMin || t > kRateMax || p < kRateMin || p > kRateMax ||
            !WithinBound(static_cast<float>(p), static_cast<float>(t)) || gain < kGainMin ||
            gain > kGainMax) {
            std::fprintf(stderr, "%s:%d: out of range or name over 23 bytes\n", argv[1], number);
            return 1;
        }
        AMorvaneProgram program;
        program.fValue[kOutput] = ValToNormalizeValue(kOutput, static_cast<float>(gain));
        program.fValue[kPitch] = static_cast<float>(p);
        program.fValue[kTime] = static_cast<float>(t);
        std::memset(program.szName, 0, sizeof(program.szName));
        std::memcpy(program.szName, name.data(), name.size());
        bank.push_back(program);
    }
    if (bank.size() != 64) {
        std::fprintf(stderr, "%s: %zu programs, want 64\n", argv[1], bank.size());
        return 1;
    }
    const std::string temp = std::string(argv[2]) + ".tmp";
    CFile out;
    const bool ok = out.Open(temp.c_str(), CFile::modeCreate | CFile::modeWrite) &&
                    WriteChunkBank(out, 0x517A7668 /* 'Qzvh' */, 64, bank.data(),
                                   static_cast<uint32_t>(bank.size() * sizeof(AMorvaneProgram))) &&
                    out.Close() && std::rename(temp.c_str(), argv[2]) == 0;
    if (!ok) {
        std::remove(temp.c_str());
        std::fprintf(stderr, "cannot write %s\n", argv[2]);
        return 1;
    }
    return 0;
}
