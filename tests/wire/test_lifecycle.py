# SPDX-License-Identifier: MIT
"""Starting, waiting, ending and refusing: nothing is lost, nothing is left behind."""
import itertools
import os
import select
import time
import unittest

from host import CRAWL, begin, descriptors, in_thread, own_threads, ready, reap, until_sent
from library import Library
from wire_case import TYPICAL, UDP, Model, WireCase, datagrams, stream

RUNS = int(os.environ.get("IPPLAYOUT_WIRE_RUNS", "1000"))
STOPS = ("IPStop", "IPStopImmediate")
REFUSED = {
    "device out of range": {"DeviceIndex": 99}, "device far out of range": {"DeviceIndex": 0xFFFFFFFF},
    "network layer 2": {"IPLayerVersion": 2}, "transport 2": {"ProtocolMode": 2},
    "bit rate 0": {"IPBitRate": 0.0}, "bit rate below 0": {"IPBitRate": -1.0},
    "bit rate not a number": {"IPBitRate": float("nan")}, "bit rate infinite": {"IPBitRate": float("inf")},
    "payload below 0": {"PacketSizeMode": 0, "IPPacketSize": 53},
    "raw payload below 0": {"TSPacketSize": 0, "PacketSizeMode": 0, "IPPacketSize": 0},
    "queues that do not fit into memory": {"BurstMode": 1, "BurstValueType": 1, "BurstSize": 0xFFFFFFFF},
}


class Completion(WireCase):
    def test_short_playouts_lose_nothing(self):
        """However late the threads of a run get the processor, its three datagrams leave."""
        def body(library, data):
            ready(library)
            for run in range(RUNS):
                assert library.IPStart() == 0
                assert library.IsPlayoutComplete() == 0, f"run {run} complete before its data"
                assert library.statistics()["DatagramsSent"] == 0, f"run {run} starts with old numbers"
                assert library.write(data) == 0
                library.IPWriteTerminate()
                assert library.IsPlayoutComplete() == 1
                assert reap(library, STOPS[run % 2])["DatagramsSent"] == 3
        data = datagrams(Model(TYPICAL), 2)
        outcome = self.bed.run(body, data)
        self.assertEqual(sum(map(len, outcome.frames)), RUNS * (3 * 54 + len(data)))
        self.assert_frames(outcome, Model(TYPICAL).play(data)[0] * RUNS)

    def test_stops_that_have_nothing_to_stop(self):
        """Before any start, right after one, twice, all at once with a wait for the end."""
        def body(library, data):
            library.IPStop()
            library.IPStopImmediate()
            library.IPWriteTerminate()
            assert library.IPStart() == Library.FAILED, "a start without devices"
            library.IPStop()
            ready(library)
            library.IPStop()
            assert library.IsPlayoutComplete() == 1
            for stop in STOPS * 25:
                begin(library)
                reap(library, stop)
                assert library.IsPlayoutComplete() == 1
            statistics = library.play(data)
            for stop in STOPS * 2:
                reap(library, stop)
            assert library.play(data) == statistics
            library.configure(CRAWL)
            for delay in (0, 0.001, 0.05):
                begin(library, data)
                joins = [in_thread(function) for function in
                         (library.IPWriteTerminate, library.IPStop, library.IPStopImmediate)]
                time.sleep(delay)
                library.IPStop()
                for join in joins:
                    join()
                assert library.IsPlayoutComplete() == 1
            return statistics
        data = datagrams(Model(TYPICAL), 5)
        expected, statistics = Model(TYPICAL).play(data)
        outcome = self.bed.run(body, data)
        self.assertEqual(outcome.frames[:12], expected * 2)
        self.assertEqual(outcome.value, statistics)

    def test_runs_after_each_other(self):
        """Full frames again after a short tail; bytes written between runs come first in the next."""
        other = {**TYPICAL, "TSPacketCount": 5, "ProtocolMode": UDP}

        def body(library, data):
            ready(library)
            library.play(data)
            assert library.write(data) == 0
            library.play(data)
            library.configure(other)
            library.play(data)
        data = datagrams(Model(TYPICAL), 4)
        self.assert_frames(self.bed.run(body, data), [
            *Model(TYPICAL).play(data)[0], *Model(TYPICAL).play(data + data)[0], *Model(other).play(data)[0]])

    def test_an_end_that_is_declared_too_late_ends_the_next_run(self):
        def body(library, data):
            ready(library)
            event = os.eventfd(0)
            library.register(event)
            library.play(data)
            os.eventfd_read(event)
            assert library.IPWriteTerminate() == 0
            assert library.IsPlayoutComplete() == 1
            library.write(data)
            assert library.IPStart() == 0
            os.eventfd_read(event)
            reap(library)
        data = datagrams(Model(TYPICAL), 4)
        self.assert_frames(self.bed.run(body, data), Model(TYPICAL).play(data)[0] * 2)

    def test_stop_event_releases_the_waiting_host(self):
        def body(library, data):
            assert library.GetIPStopEvent() == 0
            ready(library, CRAWL)
            begin(library, data)
            event = library.GetIPStopEvent()
            ended = in_thread(library.IPWriteTerminate)
            os.eventfd_write(event, 1)
            assert ended() == 0
            assert library.IsPlayoutComplete() == 0
            assert library.IPWriteTerminate() == 0  # still signalled: returns at once
            library.IPStop()
            assert os.eventfd_read(event) == 1, "the library has read the host's event"
            assert library.InitIpPlayout() == 1
            assert library.GetIPStopEvent() == event, "a host that waits for it has another one"
            assert library.CleanupIpPlayout() == 1
            assert library.GetIPStopEvent() == 0
        self.bed.run(body, datagrams(Model(TYPICAL), 200))

    def test_start_while_running(self):
        def body(library, settings, data):
            ready(library, settings)
            half = len(data) // 8 * 4
            begin(library, data[:half])
            assert library.IPStart() == Library.FAILED
            assert library.IsPlayoutComplete() == 0
            library.write(data[half:])
            assert library.IPStart() == Library.FAILED
            library.IPWriteTerminate()
            return reap(library)
        self.check_playout(TYPICAL, datagrams(Model(TYPICAL), 50), body)

    def test_end_declared_while_the_pump_waits_for_data(self):
        """The last, partly filled batch leaves also if the stream was read to an end not yet known."""
        def body(library, settings, data):
            ready(library, settings)
            begin(library, data)
            until_sent(library, 13)
            library.IPWriteTerminate()
            return reap(library)
        for rate in (50.0, 200.0):
            settings = {**TYPICAL, "IPBitRate": rate}
            self.check_playout(settings, datagrams(Model(settings), 13, tail=0), body)


class Events(WireCase):
    def test_completion_events(self):
        """Each end signals each registered event once; the library never reads or waits for one."""
        def body(library, data):
            ready(library)
            first, second, full = os.eventfd(0), os.eventfd(0), os.eventfd(0)
            os.eventfd_write(full, 2**64 - 2)  # one more would block a careless writer
            for event in (first, 0, -1, full):
                library.register(event)
            begin(library, data)
            assert select.select([first], [], [], 0)[0] == []
            library.IPWriteTerminate()
            assert select.select([first], [], [])[0] == [first]
            library.register(second)
            library.play(data)
            begin(library)
            library.IPStop()
            return os.eventfd_read(first), os.eventfd_read(second), os.eventfd_read(full)
        self.assertEqual(self.bed.run(body, stream(4000)).value, (3, 2, 2**64 - 2))

    def test_descriptor_numbers_used_again(self):
        """A descriptor that a wait of the library has given back is the host's alone."""
        def body(library, data):
            ready(library)
            mine = []
            for _ in range(5):
                begin(library, data)
                library.IPWriteTerminate()
                mine += [os.eventfd(0, os.EFD_NONBLOCK) for _ in range(4)]
                library.IPStop()
                mine += [os.eventfd(0, os.EFD_NONBLOCK) for _ in range(4)]
            return len(select.select(mine, [], [], 0)[0])
        self.assertEqual(self.bed.run(body, stream(4000)).value, 0)

    def test_registered_event_that_the_host_closes(self):
        """Each registration counts, all take up one descriptor, and the number is the host's again."""
        def body(library, data):
            ready(library)
            event = os.eventfd(0)
            kept = os.dup(event)
            library.register(event)
            before = len(descriptors())
            library.register(event)
            library.register(kept)
            assert len(descriptors()) == before
            os.close(event)
            file = os.memfd_create("host's")
            assert file == event
            library.play(data)
            return os.eventfd_read(kept), os.fstat(file).st_size
        self.assertEqual(self.bed.run(body, stream(4000)).value, (3, 0))

    def test_numbers_of_standard_streams_stay_free(self):
        """A host that has closed them prints, and the library does: not out of the adapter."""
        def body(library, settings, data):
            saved = [os.dup(number) for number in range(3)]
            os.closerange(0, 3)
            try:
                ready(library, settings)
                begin(library, data)
                used = [target for number, target in descriptors().items() if int(number) < 3]
                ready_event = library.GetIPStopEvent()
                library.IPWriteTerminate()
                return used, ready_event > 2, reap(library)
            finally:
                for number, copy in enumerate(saved):
                    os.dup2(copy, number)
        data = datagrams(Model(TYPICAL), 20)
        for rate in (50.0, 200.0):
            settings = {**TYPICAL, "IPBitRate": rate}
            expected, statistics = Model(settings).play(data)
            outcome = self.bed.run(body, settings, data)
            self.assert_frames(outcome, expected)
            self.assertEqual(outcome.value, ([], True, statistics))


class Identity(WireCase):
    def test_changes_while_frames_leave(self):
        """The C library makes every thread follow and ends the process if one cannot: all must be able to."""
        nobody, same = 65534, -1
        changes = [[call] for call in (
            ("setgroups", [nobody]), ("setgid", nobody), ("setegid", nobody), ("setregid", nobody, nobody),
            ("setresgid", nobody, nobody, nobody), ("initgroups", "root", nobody), ("setuid", nobody),
            ("setreuid", nobody, nobody), ("setresuid", nobody, nobody, nobody))]
        changes.append([("seteuid", nobody), ("seteuid", 0), ("setgroups", []), ("setuid", nobody)])
        changes.append([("setresuid", same, nobody, same), ("setresuid", same, 0, same), ("setgid", nobody)])

        def change(calls):
            for name, *arguments in calls:
                getattr(os, name)(*arguments)

        def body(library, data, calls, in_main):
            ready(library)
            half = len(data) // 8 * 4
            begin(library, data[:half])
            until_sent(library, 3)
            change(calls) if in_main else in_thread(change, calls)()
            assert library.write(data[half:]) == 0
            library.IPWriteTerminate()
            return reap(library)
        data = datagrams(Model(TYPICAL), 20)
        expected, statistics = Model(TYPICAL).play(data)
        for calls, in_main in itertools.product(changes, (True, False)):
            with self.subTest(calls=calls, in_main=in_main):
                outcome = self.bed.run(body, data, calls, in_main)
                self.assert_frames(outcome, expected)
                self.assertEqual(outcome.value, statistics)


class Refusals(WireCase):
    def test_values_that_cannot_be_played(self):
        def body(library, data):
            ready(library)
            device, threads = library.GetDeviceIndex(), own_threads()
            for (name, changes), stop in itertools.product(REFUSED.items(), STOPS):
                library.configure({**TYPICAL, "BurstMode": 0, "DeviceIndex": device, **changes})
                assert library.IPStart() == Library.FAILED, name
                assert own_threads() == threads, name
                assert library.IsPlayoutComplete() == 1, name
                assert library.IPWriteTerminate() == 0, name
                reap(library, stop)
            assert library.IPStart() == Library.FAILED  # once more, and no stop behind it
            library.configure({**TYPICAL, "BurstMode": 0, "DeviceIndex": device})
            return library.play(data)
        data = datagrams(Model(TYPICAL), 3)
        self.assert_frames(self.bed.run(body, data), Model(TYPICAL).play(data)[0])


class Leaks(WireCase):
    def test_unloading(self):
        """Loading, playing and unloading leaves no thread, no descriptor and no code behind."""
        def body(library, data):
            path = self.bed.library_path
            library.unload()
            before = own_threads(), descriptors()
            for turn in range(16):
                library = Library(path)
                ready(library)
                if turn % 4 == 3:  # unloaded in mid-run
                    begin(library, data)
                else:
                    library.play(data)
                if turn % 2:  # other hosts never clean up, or do so and go on
                    library.CleanupIpPlayout()
                if turn % 4 == 1:
                    ready(library)
                    library.play(data)
                library.unload()
                with open("/proc/self/maps") as maps:
                    assert "libipplayout" not in maps.read(), f"still loaded after turn {turn}"
                assert (own_threads(), descriptors()) == before, f"{descriptors()}, {before} turn {turn}"
        self.bed.run(body, datagrams(Model(TYPICAL), 20))

    def test_running_and_stopped(self):
        """Two threads with their names while a playout runs, nothing but the devices after it."""
        def body(library, data):
            ready(library)
            before = own_threads(), descriptors()
            for _ in range(10):
                begin(library, data)
                until_sent(library, 3)  # both threads are at work by then
                names = sorted(name for task, name in own_threads().items() if task not in before[0])
                library.IPWriteTerminate()
                library.IPStop()
                assert (own_threads(), descriptors()) == before
            return names
        # The kernel keeps 15 characters of a thread's name.
        self.assertEqual(self.bed.run(body, stream(8000)).value, ["DataPumpThread", "PacketTransmitt"])


if __name__ == "__main__":
    unittest.main()
