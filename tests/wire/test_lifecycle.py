"""Starting, stopping, waiting and refusing: nothing hangs, nothing is lost, nothing is left behind."""
import itertools
import os
import select
import threading
import time
import unittest

from library import Library
from testbed import Testbed
from wire_case import TYPICAL, Model, WireCase, datagrams, play, stream

RUNS = int(os.environ.get("IPPLAYOUT_WIRE_RUNS", "1000"))
SLOW = {**TYPICAL, "IPBitRate": 1e-5}           # 10 bit/s: a frame lasts 18 minutes
CRAWL = {**TYPICAL, "IPBitRate": 0.1}           # 100 kbit/s: the ring fills and stays full
RING = 64 << 20
REFUSED = {
    "device out of range": {"DeviceIndex": 99}, "device far out of range": {"DeviceIndex": 0xFFFFFFFF},
    "network layer 2": {"IPLayerVersion": 2}, "transport 2": {"ProtocolMode": 2},
    "bit rate 0": {"IPBitRate": 0.0}, "bit rate below 0": {"IPBitRate": -1.0},
    "bit rate not a number": {"IPBitRate": float("nan")}, "bit rate infinite": {"IPBitRate": float("inf")},
    "payload below 0": {"PacketSizeMode": 0, "IPPacketSize": 53},
    "raw payload below 0": {"TSPacketSize": 0, "PacketSizeMode": 0, "IPPacketSize": 0},
    "queues that do not fit into memory": {"BurstMode": 1, "BurstValueType": 1, "BurstSize": 0xFFFFFFFF},
}


def ready(settings, library):
    library.initialise(Testbed.NEAR)
    library.configure(settings)


def in_thread(function, *arguments):
    """Runs function in a thread; joining the thread gives its result."""
    result = []
    thread = threading.Thread(target=lambda: result.append(function(*arguments)))
    thread.start()

    def join():
        thread.join()
        return result[0]
    return join


def reap(library, stop="IPStop"):
    """Ends the playout; its statistics."""
    getattr(library, stop)()
    return library.statistics()


def own_threads():
    names = {}
    for task in os.listdir("/proc/self/task"):
        with open(f"/proc/self/task/{task}/comm") as file:
            names[task] = file.read().strip()
    return names


def descriptors():
    return {fd: os.readlink(f"/proc/self/fd/{fd}") for fd in os.listdir("/proc/self/fd")
            if os.path.exists(f"/proc/self/fd/{fd}")}


def until_full(library, written):
    """A host that writes until it is refused; counts what was taken."""
    chunk = bytes(Library.LARGEST_WRITE)
    while (result := library.write(chunk)) == 0:
        written.append(len(chunk))
    return result


def wait_until_full(written):
    """Returns when the next write can no longer fit, and has most likely begun to wait."""
    while sum(written) + Library.LARGEST_WRITE <= RING:
        time.sleep(0.001)
    time.sleep(0.05)  # either order must come out the same; this only makes the blocked one likely


class Completion(WireCase):
    def test_short_playouts_lose_nothing(self):
        """However late the threads of a run get the processor, its three datagrams leave."""
        def body(library, data):
            ready(TYPICAL, library)
            for run in range(RUNS):
                assert library.IPStart() == 0
                assert library.IsPlayoutComplete() == 0, f"run {run} complete before its data"
                assert library.statistics()["DatagramsSent"] == 0, f"run {run} starts with old numbers"
                assert library.write(data) == 0
                library.IPWriteTerminate()
                assert library.IsPlayoutComplete() == 1
                assert library.statistics()["DatagramsSent"] == 3
                (library.IPStop, library.IPStopImmediate)[run % 2]()
        data = datagrams(Model(TYPICAL), 2)
        outcome = self.bed.run(body, data)
        self.assertEqual(sum(map(len, outcome.frames)), RUNS * (3 * 54 + len(data)))
        self.assert_frames(outcome, Model(TYPICAL).play(data)[0] * RUNS)

    def test_stop_right_after_start(self):
        def body(library, data):
            ready(TYPICAL, library)
            for stop in (library.IPStop, library.IPStopImmediate) * 25:
                assert library.IPStart() == 0
                stop()
                assert library.IsPlayoutComplete() == 1
            return library.play(data)
        data = datagrams(Model(TYPICAL), 5)
        outcome = self.bed.run(body, data)
        self.assert_frames(outcome, Model(TYPICAL).play(data)[0])

    def test_stops_that_have_nothing_to_stop(self):
        def body(library, data):
            library.IPStop()
            library.IPStopImmediate()
            library.IPWriteTerminate()
            assert library.IPStart() == Library.FAILED, "a start without devices"
            library.IPStop()
            ready(TYPICAL, library)
            library.IPStop()
            assert library.IsPlayoutComplete() == 1
            statistics = library.play(data)
            for stop in (library.IPStop, library.IPStopImmediate) * 2:
                stop()
            assert library.play(data) == statistics
            return statistics
        data = datagrams(Model(TYPICAL), 5)
        expected, statistics = Model(TYPICAL).play(data)
        outcome = self.bed.run(body, data)
        self.assert_frames(outcome, expected * 2)
        self.assertEqual(outcome.value, statistics)

    def test_runs_after_each_other(self):
        """Full frames again after a short tail; bytes written between runs come first in the next."""
        def body(library, data):
            ready(TYPICAL, library)
            library.play(data)
            assert library.write(data) == 0
            library.play(data)
            library.configure({**TYPICAL, "TSPacketCount": 5, "ProtocolMode": 0})
            library.play(data)
        data = datagrams(Model(TYPICAL), 4)
        self.assert_frames(self.bed.run(body, data), [
            *Model(TYPICAL).play(data)[0], *Model(TYPICAL).play(data + data)[0],
            *Model({**TYPICAL, "TSPacketCount": 5, "ProtocolMode": 0}).play(data)[0]])

    def test_stop_while_the_end_is_awaited(self):
        def body(library, data):
            ready(CRAWL, library)
            for stop, delay in itertools.product((library.IPStop, library.IPStopImmediate), (0, 0.001, 0.05)):
                assert library.IPStart() == 0
                library.write(data)
                ended = in_thread(library.IPWriteTerminate)
                time.sleep(delay)
                stop()
                assert ended() == 0
        self.bed.run(body, datagrams(Model(TYPICAL), 200))

    def test_two_stops_at_once(self):
        def body(library, data):
            ready(CRAWL, library)
            for _ in range(20):
                assert library.IPStart() == 0
                library.write(data)
                joins = [in_thread(stop) for stop in (library.IPStop, library.IPStopImmediate)]
                for join in joins:
                    join()
                assert library.IsPlayoutComplete() == 1
        self.bed.run(body, datagrams(Model(TYPICAL), 20))

    def test_stop_event_releases_the_waiting_host(self):
        def body(library, data):
            ready(CRAWL, library)
            assert library.IPStart() == 0
            library.write(data)
            event = library.GetIPStopEvent()
            ended = in_thread(library.IPWriteTerminate)
            os.eventfd_write(event, 1)
            assert ended() == 0
            assert library.IsPlayoutComplete() == 0
            assert library.IPWriteTerminate() == 0  # still signalled: returns at once
            library.IPStop()
            assert os.eventfd_read(event) == 1, "the library has read the host's event"
        self.bed.run(body, datagrams(Model(TYPICAL), 200))

    def test_start_while_running(self):
        def body(library, data):
            ready(TYPICAL, library)
            half = len(data) // 8 * 4
            assert library.IPStart() == 0
            library.write(data[:half])
            assert library.IPStart() == Library.FAILED
            assert library.IsPlayoutComplete() == 0
            library.write(data[half:])
            assert library.IPStart() == Library.FAILED
            library.IPWriteTerminate()
            return reap(library)
        data = datagrams(Model(TYPICAL), 50)
        expected, statistics = Model(TYPICAL).play(data)
        outcome = self.bed.run(body, data)
        self.assert_frames(outcome, expected)
        self.assertEqual(outcome.value, statistics)

    def test_end_declared_while_the_pump_waits_for_data(self):
        """The last, partly filled batch leaves also if the stream was read to its end before that was known."""
        def body(library, settings, data):
            ready(settings, library)
            assert library.IPStart() == 0
            library.write(data)
            while library.statistics()["DatagramsSent"] < 13:
                pass
            library.IPWriteTerminate()
            return reap(library)
        for changes in ({}, {"IPBitRate": 200.0}):
            settings = {**TYPICAL, **changes}
            self.check_playout(settings, datagrams(Model(settings), 13, tail=0), body)

    def test_more_than_the_ring_holds(self):
        settings = {**TYPICAL, "IPBitRate": 2000.0, "TSPacketSize": 0, "PacketSizeMode": 0, "IPPacketSize": 1401}
        data = stream(RING + (3 << 20))
        outcome = self.bed.run(play, settings, data)
        self.assertTrue(b"".join(frame[54:] for frame in outcome.frames) == data, "the payload differs")

    def test_writes_that_race_with_the_end(self):
        """Bytes may come after the end was declared: they are played or not, but nobody hangs."""
        def body(library, chunk):
            ready({**TYPICAL, "IPBitRate": 500.0}, library)
            for run in range(40):
                assert library.IPStart() == 0
                begun = threading.Event()

                def keep_writing():
                    for _ in range(200):
                        begun.set()
                        if library.write(chunk) != 0:
                            return
                written = in_thread(keep_writing)
                begun.wait()
                library.IPWriteTerminate()
                written()
                (library.IPStop, library.IPStopImmediate)[run % 2]()
        outcome = self.bed.run(body, stream(400))
        self.assertGreater(len(outcome.frames), 0)


class Blocking(WireCase):
    def setUp(self):
        self.addCleanup(self.bed.set_link, "up")

    def test_blocked_writer_is_released_by_a_stop(self):
        def body(library, data):
            ready(CRAWL, library)
            for stop in (library.IPStop, library.IPStopImmediate):
                assert library.IPStart() == 0
                written = []
                writer = in_thread(until_full, library, written)
                wait_until_full(written)
                stop()
                assert writer() == Library.FAILED
                library.IPStop()  # discards what a late writer has put into the emptied ring
            library.configure(TYPICAL)
            return library.play(data)
        data = datagrams(Model(TYPICAL), 3)
        outcome = self.bed.run(body, data)
        clean = Model(TYPICAL).play(data)[0]
        self.assertEqual(outcome.frames[-len(clean):], clean)
        self.assertEqual(outcome.value, Model(TYPICAL).play(data)[1])

    def test_blocked_writer_is_released_by_a_lost_adapter(self):
        """The adapter goes down in mid-run: the writer hears of it, and so does every later write."""
        def body(library, data):
            ready({**CRAWL, "IPBitRate": 1.0}, library)
            event = os.eventfd(0)
            library.register(event)
            assert library.IPStart() == 0
            written = []
            writer = in_thread(until_full, library, written)
            wait_until_full(written)
            self.bed.set_link("down")
            assert writer() == Library.FAILED
            assert library.IPWriteTerminate() == 0
            assert library.IsPlayoutComplete() == 1
            assert os.eventfd_read(event) == 1
            assert library.write(data) == Library.FAILED
            library.IPStop()
            self.bed.set_link("up")
            library.configure(TYPICAL)
            return library.play(data)
        data = datagrams(Model(TYPICAL), 3)
        expected, statistics = Model(TYPICAL).play(data)
        outcome = self.bed.run(body, data)
        self.assertEqual(outcome.frames[-len(expected):], expected)
        self.assertEqual(outcome.value, statistics)
        self.assertIn("An error occurred sending the packets:  Only ", outcome.printed)

    def test_full_ring_between_runs(self):
        """A host that goes on writing after the end is refused once the ring is full."""
        def body(library, data):
            ready(TYPICAL, library)
            assert library.IPStart() == 0
            library.write(data)
            library.IPWriteTerminate()
            written = []
            assert until_full(library, written) == Library.FAILED
            library.IPStop()
            return sum(written)
        taken = self.bed.run(body, stream(4000)).value
        self.assertEqual(taken, RING // Library.LARGEST_WRITE * Library.LARGEST_WRITE)

    def test_frame_that_the_adapter_refuses(self):
        """A frame beyond the adapter's own MTU ends the run as a failed one, for every batch size."""
        def body(library, data):
            ready({**TYPICAL, "IPFragmentation": 1, "TSPacketCount": 80}, library)
            for changes in ({}, {"IPBitRate": 200.0}, {"BurstMode": 1, "BurstValueType": 1, "BurstSize": 3}):
                library.configure(changes)
                assert library.IPStart() == 0
                while library.write(data) == 0:
                    pass
                library.IPWriteTerminate()
                library.IPStop()
            library.configure({**TYPICAL, "BurstMode": 0, "IPFragmentation": 0})
            return library.play(data)
        self.bed.near.run("ip", "link", "set", Testbed.NEAR, "mtu", "1500")
        self.addCleanup(self.bed.near.run, "ip", "link", "set", Testbed.NEAR, "mtu", str(Testbed.MTU))
        data = datagrams(Model(TYPICAL), 3)
        outcome = self.bed.run(body, data)
        self.assert_frames(outcome, Model(TYPICAL).play(data)[0])

    def test_start_on_an_adapter_that_is_down(self):
        """Starting may be refused or may fail at the first frame; it neither hangs nor crashes."""
        def body(library, data):
            ready(TYPICAL, library)
            self.bed.set_link("down")
            if library.IPStart() == 0:
                while library.write(data) == 0:
                    pass
                library.IPWriteTerminate()
            library.IPStop()
            self.bed.set_link("up")
            return library.play(data)
        data = datagrams(Model(TYPICAL), 3)
        self.assert_frames(self.bed.run(body, data), Model(TYPICAL).play(data)[0])

    def test_pause(self):
        """Nothing is lost or repeated by a pause; a stop ends it, and the next run is not paused."""
        def body(library, data):
            ready(TYPICAL, library)
            assert library.IPStart() == 0
            library.write(data)
            for _ in range(20):
                assert library.IPPause(1) == 1
                assert library.IPPause(0) == 1
            library.IPPause(1)
            library.IPPause(2)  # anything but 1 resumes
            library.IPWriteTerminate()
            statistics = reap(library)
            for stop in ("IPStop", "IPStopImmediate"):
                assert library.IPStart() == 0
                library.IPPause(1)
                library.write(data)
                reap(library, stop)
            return statistics, library.play(data)
        data = datagrams(Model(TYPICAL), 60)
        expected, statistics = Model(TYPICAL).play(data)
        outcome = self.bed.run(body, data)
        self.assertEqual(outcome.value, (statistics, statistics))
        self.assertEqual(outcome.frames[:len(expected)], expected)
        self.assertEqual(outcome.frames[-len(expected):], expected)

    def test_paused_playout_sends_nothing(self):
        def body(library, data):
            ready(TYPICAL, library)
            assert library.IPStart() == 0
            library.IPPause(1)
            library.write(data)
            ended = in_thread(library.IPWriteTerminate)
            time.sleep(0.2)
            held = library.statistics()["DatagramsSent"]
            library.IPPause(0)
            ended()
            return held, reap(library)["DatagramsSent"]
        data = datagrams(Model(TYPICAL), 100)
        held, sent = self.bed.run(body, data).value
        self.assertLessEqual(held, 1)  # one datagram may have been asked for before the pause
        self.assertEqual(sent, 101)

    def test_stop_at_ten_bits_per_second(self):
        """A stop cuts the pacing short; all that was counted as sent has left. The best of three times."""
        def body(library, settings, data, stop):
            ready(settings, library)
            assert library.IPStart() == 0
            library.write(data)
            while library.statistics()["DatagramsSent"] < 1:
                pass
            time.sleep(0.1)
            begun = time.monotonic()
            statistics = reap(library, stop)
            return time.monotonic() - begun, statistics["DatagramsSent"]
        batches = {**SLOW, "JitterEnabled": 1, "JitterPeriod": 10.0}
        for settings, stop in itertools.product((SLOW, batches), ("IPStop", "IPStopImmediate")):
            with self.subTest(batches="JitterEnabled" in settings, stop=stop):
                data = datagrams(Model(settings), 40)
                expected = Model(settings).play(data)[0]
                times = []
                for _ in range(3):
                    outcome = self.bed.run(body, settings, data, stop)
                    duration, sent = outcome.value
                    times.append(duration)
                    self.assert_frames(outcome, expected[:sent])
                self.assertLess(min(times), 1.0)


class Events(WireCase):
    def test_completion_events(self):
        """Each end signals each registered event once; the library never reads or waits for one."""
        def body(library, data):
            ready(TYPICAL, library)
            first, second, full = os.eventfd(0), os.eventfd(0), os.eventfd(0)
            os.eventfd_write(full, 2**64 - 2)  # one more would block a careless writer
            for event in (first, 0, -1, full):
                library.register(event)
            library.play(data)
            library.register(second)
            library.play(data)
            assert library.IPStart() == 0
            library.IPStop()
            watched = select.select([first, second], [], [], 0)[0]
            return len(watched), os.eventfd_read(first), os.eventfd_read(second), os.eventfd_read(full)
        self.assertEqual(self.bed.run(body, stream(4000)).value, (2, 3, 2, 2**64 - 2))

    def test_event_comes_with_the_end(self):
        def body(library, data):
            ready(TYPICAL, library)
            event = os.eventfd(0)
            library.register(event)
            assert library.IPStart() == 0
            library.write(data)
            assert select.select([event], [], [], 0)[0] == []
            library.IPWriteTerminate()
            assert select.select([event], [], [])[0] == [event]
            assert library.IsPlayoutComplete() == 1
            library.IPStop()
            assert os.eventfd_read(event) == 1
        self.bed.run(body, stream(4000))

    def test_descriptor_numbers_used_again(self):
        """A descriptor that a wait of the library has given back is the host's alone."""
        def body(library, data):
            ready(TYPICAL, library)
            mine = []
            for _ in range(5):
                assert library.IPStart() == 0
                library.write(data)
                library.IPWriteTerminate()
                mine += [os.eventfd(0, os.EFD_NONBLOCK) for _ in range(4)]
                library.IPStop()
                mine += [os.eventfd(0, os.EFD_NONBLOCK) for _ in range(4)]
            return len(select.select(mine, [], [], 0)[0])
        self.assertEqual(self.bed.run(body, stream(4000)).value, 0)


class Refusals(WireCase):
    def test_values_that_cannot_be_played(self):
        def body(library, data):
            library.initialise(Testbed.NEAR)
            device = library.GetDeviceIndex()
            threads = own_threads()
            for name, changes in REFUSED.items():
                for stop in (library.IPStop, library.IPStopImmediate):
                    library.configure({**TYPICAL, "BurstMode": 0,
                                       **{key: value for key, value in changes.items() if key != "DeviceIndex"}})
                    library.GetIPPlayParams().contents.DeviceIndex = changes.get("DeviceIndex", device)
                    assert library.IPStart() == Library.FAILED, name
                    assert own_threads() == threads, name
                    assert library.IsPlayoutComplete() == 1, name
                    assert library.IPWriteTerminate() == 0, name
                    stop()
            library.configure({**TYPICAL, "BurstMode": 0})
            library.GetIPPlayParams().contents.DeviceIndex = device
            return library.play(data)
        data = datagrams(Model(TYPICAL), 3)
        self.assert_frames(self.bed.run(body, data), Model(TYPICAL).play(data)[0])

    def test_start_after_a_refusal_without_a_stop(self):
        def body(library, data):
            ready({**TYPICAL, "IPBitRate": 0.0}, library)
            for _ in range(3):
                assert library.IPStart() == Library.FAILED
            library.configure(TYPICAL)
            library.play(data)
        data = datagrams(Model(TYPICAL), 3)
        self.assert_frames(self.bed.run(body, data), Model(TYPICAL).play(data)[0])


class Leaks(WireCase):
    def test_unloading(self):
        """Loading, playing and unloading leaves no thread, no descriptor and no code behind."""
        def body(library, data):
            path = self.bed.library_path
            library.unload()
            before = own_threads(), descriptors()
            for turn in range(24):
                library = Library(path)
                ready(TYPICAL, library)
                if turn % 4 == 3:  # unloaded in mid-run
                    assert library.IPStart() == 0
                    library.write(data)
                else:
                    library.play(data)
                if turn % 2:
                    library.CleanupIpPlayout()
                library.unload()
                with open("/proc/self/maps") as maps:
                    assert "libipplayout" not in maps.read(), f"still loaded after turn {turn}"
                if turn % 2:  # a host that never cleans up leaves its stop event to the unloading
                    assert (own_threads(), descriptors()) == before, f"{descriptors()}, {before} turn {turn}"
            assert (own_threads(), descriptors()) == before
        self.bed.run(body, datagrams(Model(TYPICAL), 20))

    def test_running_and_stopped(self):
        """Two threads with their names while a playout runs, nothing but the devices after it."""
        def body(library, data):
            ready(TYPICAL, library)
            before = own_threads(), descriptors()
            for _ in range(10):
                assert library.IPStart() == 0
                library.write(data)
                while library.statistics()["DatagramsSent"] < 3:  # both threads are at work by then
                    pass
                names = sorted(name for task, name in own_threads().items() if task not in before[0])
                library.IPWriteTerminate()
                library.IPStop()
                assert (own_threads(), descriptors()) == before
            return names
        # The kernel keeps 15 characters of a thread's name.
        self.assertEqual(self.bed.run(body, stream(8000)).value, ["DataPumpThread", "PacketTransmitt"])

    def test_initialising_again(self):
        def body(library, data):
            ready(TYPICAL, library)
            library.CleanupIpPlayout()
            before = descriptors()
            for _ in range(5):
                ready(TYPICAL, library)
                library.play(data)
                library.CleanupIpPlayout()
                assert library.GetIPStopEvent() in (0, -1) or descriptors() == before
            assert descriptors() == before
        data = datagrams(Model(TYPICAL), 3)
        self.assert_frames(self.bed.run(body, data), Model(TYPICAL).play(data)[0] * 5)


class Rate(WireCase):
    def test_rate_on_the_wire(self):
        """Within a fifth of what was set, counted over seconds: faults of units, not of precision."""
        for changes in ({"IPBitRate": 5.0}, {"IPBitRate": 90.0}, {"IPBitRate": 3.0, "ReplicationCount": 2},
                        {"IPBitRate": 8.0, "BurstMode": 1, "BurstValueType": 1, "BurstSize": 20},
                        {"IPBitRate": 8.0, "JitterEnabled": 1, "JitterPeriod": 50.0}):
            settings = {**TYPICAL, **changes}
            copies = settings.get("ReplicationCount", 0) + 1
            with self.subTest(**changes):
                model = Model(settings)
                count = int(settings["IPBitRate"] * 1e6 * 2 / 8 / model.datagram_size)
                outcome = self.bed.run(play, settings, datagrams(model, count, tail=0))
                times = [arrival for arrival, _ in outcome.arrivals]
                bits = 8 * model.datagram_size * (len(times) - settings.get("BurstSize", 1))
                rate = bits / (times[-1] - times[0]) / 1e6
                self.assertAlmostEqual(rate / (settings["IPBitRate"] * copies), 1.0, delta=0.2)


if __name__ == "__main__":
    unittest.main()
