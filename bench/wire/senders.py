# SPDX-License-Identifier: MIT
"""Who sends, and what: the command line of every sender for one rate, and the stream they all send.

A rate is of Ethernet frames of 1,370 bytes that carry seven transport packets over RTP. Senders that
cannot do RTP send the same datagrams at the same pace without its 12 bytes.
"""
import itertools
import struct
import subprocess
from pathlib import Path

FRAME = 1370
PAYLOAD = 7 * 188
GROUP, PORT = "239.1.2.3", 5004
HEADER = bytes.fromhex(
    "01005e010203 020000000001 0800"
    "4500054c0000400010116a4f 0a4d0001 ef010203 9c40138c05380000".replace(" ", "")
)


def gap_ns(megabits):
    return FRAME * 8000 / megabits


def stream_rate(megabits):
    """Bit rate of the transport stream in frames of so many Mb/s."""
    return round(megabits * 1e6 * PAYLOAD / FRAME)


def write_capture(path, times):
    """RTP frames at these times, in nanoseconds."""
    packet = b"\x47\x1f\xff\x10" + b"\xff" * 184
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 1 << 16, 1))
        for number, at in enumerate(times):
            rtp = struct.pack(">BBHII", 0x80, 33, number & 0xFFFF, at * 9 // 100_000 & 0xFFFFFFFF, 1)
            file.write(struct.pack("<IIII", *divmod(at, 10**9), FRAME, FRAME))
            file.write(HEADER + rtp + packet * 7)


class Material:
    """Makes the files that senders read, once per rate and length."""

    def __init__(self, directory):
        self.directory = Path(directory)

    def stream(self, megabits, seconds):
        """A transport stream of constant rate with one programme, long enough for so many seconds."""
        path = self.directory / f"{megabits}-{seconds}.ts"
        if not path.exists():
            rate = stream_rate(megabits)
            video = min(rate // 2, 4_000_000)
            self.encode(path, seconds, video, ["-bufsize", "1M", "-muxrate", str(rate)])
            subprocess.run(
                ["ingests", "-p", "256", path],
                check=True,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
            )
        return path

    def variable_stream(self, seconds):
        """A transport stream of the pictures' own rate: some hundred kbit/s in one second, some Mb/s in the next."""
        path = self.directory / f"variable-{seconds}.ts"
        if not path.exists():
            self.encode(path, seconds, 6_000_000, ["-bufsize", "6M", "-vf", "noise=alls=40:allf=t:enable='lt(mod(t,2),1)'"])
            subprocess.run(["ingests", "-p", "256", path], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return path

    @staticmethod
    def encode(path, seconds, video, options):
        source = ["-f", "lavfi", "-i", "testsrc=size=352x288:rate=25", "-t", str(seconds)]
        codec = ["-c:v", "mpeg2video", "-b:v", str(video), "-maxrate", str(video)]
        mux = ["-f", "mpegts", "-pcr_period", "20"]
        subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", *source, *codec, *options, *mux, path], check=True)

    def capture(self):
        """A capture file of 1,000 RTP frames."""
        path = self.directory / "frames.pcap"
        if not path.exists():
            write_capture(path, range(0, 1_000_000, 1000))
        return path

    def irregular_capture(self, gaps):
        """One whose frames are so many nanoseconds apart."""
        path = self.directory / "irregular.pcap"
        if not path.exists():
            write_capture(path, itertools.accumulate(map(int, gaps), initial=0))
        return path

    def trafgen_frame(self):
        path = self.directory / "frame.cfg"
        octets = ", ".join(f"0x{octet:02x}" for octet in HEADER)
        path.write_text(f"{{ {octets}, fill(0x47, {FRAME - len(HEADER)}) }}\n")
        return path


class Senders:
    """Command lines by the name that the tables show; each is a function of Mb/s and seconds."""

    def __init__(self, bed, material):
        self.device, self.programs, self.material = bed.NEAR, bed.programs, material
        self.ipplay_program = bed.programs.parent / "host" / "ipplay"

    def tcpreplay(self, timer):
        return lambda megabits, seconds: [
            "tcpreplay",
            "-q",
            "-K",
            "-l",
            "0",
            f"--timer={timer}",
            f"--mbps={megabits}",
            "-i",
            self.device,
            self.material.capture(),
        ]

    def multicat(self, megabits, seconds):
        return ["multicat", "-u", self.material.stream(megabits, seconds + 2), f"{GROUP}:{PORT}"]

    def multicat_realtime(self, megabits, seconds):
        return ["multicat", "-i", "1", *self.multicat(megabits, seconds)[1:]]

    def gstreamer(self, megabits, seconds):
        return [
            "gst-launch-1.0",
            "-q",
            "filesrc",
            f"location={self.material.stream(megabits, seconds + 2)}",
            "!",
            "tsparse",
            "set-timestamps=true",
            "alignment=7",
            "!",
            "rtpmp2tpay",
            f"mtu={PAYLOAD + 12}",
            "!",
            "udpsink",
            f"host={GROUP}",
            f"port={PORT}",
            "auto-multicast=false",
        ]

    def ffmpeg(self, megabits, seconds):
        rate = stream_rate(megabits)
        return [
            "ffmpeg",
            "-nostdin",
            "-loglevel",
            "error",
            "-re",
            "-i",
            self.material.stream(megabits, seconds + 2),
            "-c",
            "copy",
            "-f",
            "mpegts",
            "-muxrate",
            str(rate),
            f"udp://{GROUP}:{PORT}?pkt_size={PAYLOAD}&bitrate={rate}",
        ]

    def bare_pacing(self, megabits, seconds):
        return [self.programs / "bare_pacing", self.device, FRAME, round(megabits * 1e6), seconds + 2]

    def ipplay(self, megabits, seconds):
        return [
            self.ipplay_program,
            "play",
            self.material.stream(min(megabits, 100), 3),
            "--to",
            f"rtp://{GROUP}:{PORT}",
            "--device",
            self.device,
            "--frame-bitrate",
            f"{megabits}M",
            "--loop",
            "forever",
            "--quiet",
        ]

    def ipplay_economy(self, megabits, seconds):
        return [*self.ipplay(megabits, seconds), "--economy"]

    def library(self, *settings):
        return lambda megabits, seconds: [
            self.programs / "play_steady",
            self.device,
            megabits,
            seconds,
            *(settings or ["1"]),
        ]

    # Many streams at once, to the groups from 239.1.0.0 on.

    def playouts(self, *options):
        return lambda count, megabits, seconds: [
            self.programs / "play_many",
            self.device,
            count,
            megabits,
            seconds,
            *options,
        ]

    def multicats(self, count, megabits, seconds):
        stream = self.material.stream(megabits, seconds + 10)  # hundreds take seconds to start
        return [
            "sh",
            "-c",
            f"for i in $(seq 0 {count - 1}); do"
            f" multicat -u {stream} 239.1.$((i / 256)).$((i % 256)):{PORT} & done; wait",
        ]

    # As fast as they can.

    def tcpreplay_top(self, _, seconds):
        return ["tcpreplay", "-q", "-K", "-l", "0", "--topspeed", "-i", self.device, self.material.capture()]

    def trafgen_top(self, _, seconds):
        return ["trafgen", "-P", "1", "-C", "-o", self.device, "-i", self.material.trafgen_frame()]

    def sendmmsg_top(self, _, seconds):
        return [self.programs / "bare_sendmmsg", self.device, FRAME, seconds]

    def library_top(self, copies=1):
        return lambda _, seconds: [self.programs / "play_steady", self.device, "100000", seconds, copies]
