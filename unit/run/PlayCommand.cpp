#include "run/PlayCommand.h"

#include <cstdio>

#include "model/CheckedJson.h"
#include "model/UnitSocket.h"
#include "run/Playback.h"
#include "run/UnitFolder.h"
#include "run/UserError.h"
#include "vexahost/Recording.h"

namespace vexa::unit {

namespace {

PlayedRecord RecordOf(const vexahost::CapturedFrame& frame) {
    PlayedRecord record{.time = frame.time, .bytes = {frame.bytes.begin(), frame.bytes.end()}};
    if (frame.bytes.empty()) {
        record.kind = frame.comment == vexahost::kCableOut ? PlayedRecord::Kind::kCableOut
                                                           : PlayedRecord::Kind::kCableIn;
    } else if (frame.direction == vexahost::Direction::kToUnit) {
        record.kind = PlayedRecord::Kind::kRequest;
    }
    return record;
}

std::vector<PlayedRecord> ReadRecords(const std::string& path) {
    auto reader = vexahost::PcapngReader::Open(path);
    if (!reader) throw UserError(reader.error().message);
    std::vector<PlayedRecord> records;
    while (const auto frame = reader->Next()) records.push_back(RecordOf(*frame));
    if (records.empty()) {
        throw UserError(path + ": " +
                        (reader->Fault().empty() ? "there is nothing in it" : reader->Fault()));
    }
    if (!reader->Fault().empty()) {
        std::fprintf(stderr, "vexa-unit: %s: %s; what is before that is played\n", path.c_str(),
                     reader->Fault().c_str());
    }
    return records;
}

}  // namespace

int Play(const PlayOptions& options) {
    PlaybackOptions playback{.atPace = options.atPace};
    if (!options.patience.empty()) {
        const auto ms = ParseDurationMs(options.patience);
        if (!ms) throw UserError("--patience: expected a time such as 5s, not " + options.patience);
        playback.patience = std::chrono::milliseconds(*ms);
    }
    const auto records = ReadRecords(options.recording);
    UnitFolder folder(options.folder);
    folder.ReleaseControlSocket();
    std::fprintf(stderr, "vexa-unit: host socket %s\n", HostSocketPath(folder.Path()).c_str());

    const auto result = PlayRecords(records, folder.HostSocket(), playback);
    std::printf("%zu frames played; %zu requests as recorded", result.frames, result.requests);
    if (result.firstDifference.empty()) {
        std::printf("\n");
        return 0;
    }
    std::printf(", %zu differences; the first: %s\n", result.differences,
                result.firstDifference.c_str());
    return kRefusedStatus;
}

}  // namespace vexa::unit
