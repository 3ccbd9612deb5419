#!/usr/bin/env python3
"""The judgement over a soak's samples, and its picture."""

import unittest
import xml.etree.ElementTree

import figures


def run(kib, descriptors, service="loader", pids=None):
    """Samples of a run of 100 s, one each second; `kib` and `descriptors` are functions of the second."""
    return [figures.Sample(t, service, pids(t) if pids else 7, kib(t), kib(t) + 1000, descriptors(t))
            for t in range(100)]


def faults(samples):
    return [fault for growth in figures.growths(samples, 100) for fault in growth.faults(64)]


class Growth(unittest.TestCase):
    def test_what_grows_while_it_warms_up_is_no_fault(self):
        self.assertEqual(faults(run(lambda t: 500 + min(t, 24) * 100, lambda t: 5 + min(t, 24))), [])

    def test_peaks_are_no_fault(self):
        self.assertEqual(faults(run(lambda t: 5000 if t % 7 == 0 else 500, lambda t: 50 if t > 90 and t % 2 else 5)), [])

    def test_a_slow_leak_of_memory_is_found(self):
        self.assertEqual(faults(run(lambda t: 500 + 2 * t, lambda t: 5)), ["loader grew by 100 KiB"])

    def test_a_connection_that_comes_with_another_service_is_no_fault(self):
        self.assertEqual(faults(run(lambda t: 500, lambda t: 5 + (t > 60))), [])

    def test_a_slow_leak_of_descriptors_is_found(self):
        self.assertEqual(faults(run(lambda t: 500, lambda t: 5 + t // 10)),
                         ["loader has 5 descriptors more than before"])

    def test_all_processes_of_a_service_are_judged_together(self):
        samples = run(lambda t: 500 + 2 * t, lambda t: 5, pids=lambda t: t // 10)
        self.assertEqual(len(faults(samples)), 1)

    def test_a_service_that_was_not_there_at_the_end_is_not_judged(self):
        self.assertEqual(list(figures.growths(run(lambda t: t, lambda t: t)[:60], 100)), [])


def look(seconds, messages, queue=""):
    return seconds, figures.metrics_in(f"""# TYPE kelo_in_messages counter
kelo_in_messages_total{{service="log"}} {messages}
# TYPE kelo_out_messages counter
kelo_out_messages_total{{service="log"}} 10
{queue}
# EOF
""")


class Traffic(unittest.TestCase):
    def test_rates_are_those_of_the_time_that_passed(self):
        looks = [look(0, 100), look(5, 350, 'kelo_queue_bytes{service="log"} 77'), look(6, 350)]
        self.assertEqual(list(figures.traffic(looks)),
                         [figures.Traffic(5, "log", 0, 50, 77), figures.Traffic(6, "log", 0, 0, 0)])

    def test_a_loader_that_began_anew_has_no_rate(self):
        self.assertEqual(list(figures.traffic([look(0, 100), look(5, 3)])), [])

    def test_a_service_is_there_from_its_second_look_on(self):
        self.assertEqual(list(figures.traffic([(0, {}), look(5, 3)])), [])

    def test_its_picture_has_a_line_in_each_panel(self):
        tree = xml.etree.ElementTree.fromstring(figures.traffic_svg([look(t, t * t) for t in range(100)], 100))
        self.assertEqual(len([e for e in tree.iter() if e.tag.endswith("polyline")]), 2)


class Picture(unittest.TestCase):
    def test_each_process_is_a_line_and_each_service_a_name(self):
        samples = run(lambda t: t, lambda t: 5) + run(lambda t: t, lambda t: 6, "log", lambda t: t // 50)
        tree = xml.etree.ElementTree.fromstring(figures.svg(samples, 100))
        lines = [e for e in tree.iter() if e.tag.endswith("polyline")]
        names = [e.text for e in tree.iter() if e.tag.endswith("text") and e.text in ("loader", "log")]
        self.assertEqual(len(lines), 2 * 3)  # in each of the two panels
        self.assertEqual(names, ["loader", "log"] * 2)

    def test_no_line_leaves_its_panel(self):
        tree = xml.etree.ElementTree.fromstring(figures.svg(run(lambda t: 13 * t, lambda t: 5), 100))
        for line in (e for e in tree.iter() if e.tag.endswith("polyline")):
            for point in line.get("points").split():
                x, y = map(float, point.split(","))
                self.assertTrue(figures.LEFT <= x <= figures.WIDTH - figures.RIGHT)
                self.assertGreaterEqual(y, figures.TOP)


if __name__ == "__main__":
    unittest.main()
