// The "push" command of the zeva program.
#ifndef ZEVA_TOOLS_PUSH_H
#define ZEVA_TOOLS_PUSH_H

namespace zeva_tool {

constexpr const char kPushUsage[] =
    "usage: zeva push VIDEO.h264 AUDIO.aac OUT [options]\n\n"
    "Records an H.264 elementary stream (Annex B, without B-frames) and an\n"
    "ADTS AAC stream into OUT through the packet interface, one access unit\n"
    "or AAC frame per call, at full speed or paced in real time.\n\n"
    "options:\n"
    "  --also URL     record to URL as well (up to 4 times)\n"
    "  --index PATH   write the crash-safe index of the first .mp4 output to PATH\n"
    "  --fps F        frame rate of the video stream (default 30)\n"
    "  --timeout SEC  network time-out of rtmp:// and rtsp:// outputs (default 10)\n"
    "  --realtime     pace the packets by their timestamps\n"
    "  -h, --help     show this help\n";

// Runs "zeva push" with the program's arguments (argv[1] is "push").
// Returns the exit status.
int Push(int argc, char** argv);

}  // namespace zeva_tool

#endif  // ZEVA_TOOLS_PUSH_H
