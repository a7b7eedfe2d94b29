// `NyHost::EventJournal`: numbers the frames of the event stream and keeps the most recent ones, so that
// a client whose stream dropped can reconnect with the id of the last frame it saw and be sent what it
// missed.
//
// Ids look like "<run>-<n>": <run> is 8 lowercase hex digits picked at random when the journal is made
// (one run of the server), <n> counts the frames from 1 without gaps. "<run>-0" stands for "before the
// first frame": it is the latest id while nothing was appended, and resuming from it replays every kept
// frame. Clients treat ids as opaque; the journal accepts back only ids of exactly that shape.
//
// The journal keeps the last `maxFrames` frames and, within that, at most `maxBytes` bytes of them (the
// oldest go first; the newest is always kept). Frames are shared, immutable strings: a replay hands out
// references to the kept frames, never copies, so any number of clients resuming at once costs one
// pointer per frame and client.
//
// Owned by the HTTP server. Not thread-safe: the owner serializes every call, and must hold the same
// lock over appending a frame and handing it to the live clients, and over a replay and the joining of a
// new client, so that a frame published while a client connects reaches it exactly once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace NyHost {

class EventJournal {
  public:
    using Frame = std::shared_ptr<const std::string>;

    // What a reconnecting client is sent first: the frames after its id, in order (empty when it saw
    // the latest), or, when that cannot be told, a single frame of the event "reset" carrying the latest
    // id and the reason, after which the client re-reads what it shows.
    struct Resumption {
        std::vector<Frame> frames;
        bool reset = false;
    };

    // `run` 0 picks one at random. `maxFrames` and `maxBytes` below 1 are taken as 1.
    EventJournal(std::size_t maxFrames, std::size_t maxBytes, std::uint32_t run = 0);

    // Numbers and keeps "id: <id>\nevent: <event>\ndata: <data>\n\n" (a `data` of several lines becomes
    // one "data: " line each; `event` must be one line) and returns it. Drops the oldest frames beyond
    // the bounds.
    Frame Append(std::string_view event, std::string_view data);

    // What to send a client that says it saw `lastEventId` last. Any text is accepted: one too old (no
    // longer kept), from another run, malformed, or ahead of the latest gives a reset.
    Resumption After(std::string_view lastEventId) const;

    // A reset frame with the latest id and `reason`, for when a replay cannot be sent for other causes.
    Frame ResetFrame(std::string_view reason) const;

    std::string LatestId() const;
    std::size_t KeptFrames() const { return frames.size(); }
    std::size_t KeptBytes() const { return keptBytes; }

  private:
    std::string Id(std::uint64_t number) const;

    const std::size_t maxFrames;
    const std::size_t maxBytes;
    const std::string run;      // the 8 hex digits
    std::uint64_t latest = 0;   // the number of the last frame appended; 0 before the first
    std::deque<Frame> frames;   // the kept frames, numbered latest - size() + 1 .. latest
    std::size_t keptBytes = 0;  // their bytes
};

}  // namespace NyHost
