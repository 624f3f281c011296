"""`kova ipc`: mutexes, semaphores and queues with names."""

import fcntl
import json
import os
import re
import unittest

import ipc_user
from ipc_user import LOCKS, QUEUES, User, as_nobody, is_queue, is_set, key_file, make_queue, make_set
from tool import Running, ToolTest, kova, wait_until

KEY = r"key 0x50[0-9a-f]{6}, id \d+"


def set_of(name):
    """The id of the set in the list."""
    return next(entry["id"] for entry in listed() if entry["name"] == name)


def listed():
    """The list as objects."""
    return json.loads(kova("ipc", "list", "--json").stdout)


def line_of(name):
    """The line of an object, without its end."""
    lines = kova("ipc", "list").stdout.decode().splitlines()
    return next(line for line in lines if re.match(rf"\w+ {re.escape(name)}:", line))


class IpcList(ToolTest):
    def assert_line(self, name, text):
        self.assertRegex(line_of(name), rf"\A{text}\Z")

    def assert_json(self, name, **members):
        (entry,) = listed()
        self.assertRegex(entry.pop("key"), r"\A0x50[0-9a-f]{6}\Z")
        self.assertGreaterEqual(entry.pop("id"), 0)
        self.assertEqual(entry, {"name": name, **members})

    def test_nothing_is_told(self):
        self.assert_ended(kova("ipc", "list"), 0, output=rb"\Ano named objects\n\Z")
        self.assert_ended(kova("ipc", "list", "--json"), 0, output=rb"\A\[\]\n\Z")

    def test_a_free_mutex(self):
        with User("open-mutex m"), User("open-mutex m"):
            self.assert_line("m", rf"mutex m: {KEY}, counter 2, free, waiters 0")
            self.assert_json(
                "m",
                kind="mutex",
                path=f"{LOCKS}/m.kovamtx",
                counter=2,
                held=False,
                owner=None,
                waiters=0,
                persistent=False,
            )

    def test_the_key_and_the_id_are_those_of_the_kernel(self):
        with User("open-mutex m"):
            key = key_file("m.kovamtx")
            with open("/proc/sysvipc/sem", encoding="ascii") as table:
                (number,) = (line.split()[1] for line in table if line.split()[0] == str(key))
            self.assertIn(f"mutex m: key {key:#010x}, id {number}, ", line_of("m"))

    def test_a_held_mutex_and_its_owner(self):
        with User("open-mutex m", "lock m") as user:
            pid = user.pid
            self.assert_line("m", rf"mutex m: {KEY}, counter 1, held by {pid}/{pid} \(alive\), waiters 0")
            self.assert_json(
                "m",
                kind="mutex",
                path=f"{LOCKS}/m.kovamtx",
                counter=1,
                held=True,
                owner={"pid": pid, "tid": pid, "state": "alive"},
                waiters=0,
                persistent=False,
            )

    def test_a_thread_that_ended_while_it_held_a_mutex(self):
        with User("open-mutex m", "lock-and-end m") as user:
            self.assert_line(
                "m", rf"mutex m: {KEY}, counter 1, held by {user.pid}/\d+ \(thread ended\), waiters 0"
            )

    def test_an_owner_that_was_killed(self):
        with User("open-mutex m", "lock m") as user:
            user.kill()
            pid = user.pid
            self.assert_line(
                "m", rf"mutex m: {KEY}, counter 0, free, last owner {pid}/{pid} \(dead\), waiters 0"
            )
            self.assertEqual(listed()[0]["owner"], {"pid": pid, "tid": pid, "state": "dead"})

    def test_an_owner_that_nobody_reaped_is_dead(self):
        with User("open-mutex m", "lock m") as user:
            user.process.send_signal(9)
            os.waitid(os.P_PID, user.pid, os.WEXITED | os.WNOWAIT)
            self.assertIn("(dead)", line_of("m"))

    def test_waiters_are_counted(self):
        with User("open-mutex m", "lock m"), User("open-mutex m") as waiter:
            waiter.say("lock m")
            wait_until(lambda: "waiters 1" in line_of("m"), lambda: line_of("m"))
            self.assertEqual(listed()[0]["waiters"], 1)

    def test_a_persistent_mutex_without_users(self):
        with User("open-mutex m", "persist-mutex m", "close-mutex m"):
            self.assert_line("m", rf"mutex m: {KEY}, counter 0, free, waiters 0, persistent")
            self.assertTrue(listed()[0]["persistent"])

    def test_a_semaphore_and_its_values(self):
        with User("open-semaphore s 3 0 7", "wait s -2 0"):
            self.assert_line("s", rf"semaphore s: {KEY}, counter 1, values 1 0 7, waiters 0")
            self.assert_json(
                "s",
                kind="semaphore",
                path=f"{LOCKS}/s.kovasem",
                counter=1,
                values=[1, 0, 7],
                waiters=0,
                persistent=False,
            )

    def test_a_persistent_semaphore(self):
        with User("open-semaphore s 1", "persist-semaphore s"):
            self.assert_line("s", rf"semaphore s: {KEY}, counter 1, values 1, waiters 0, persistent")
            self.assertTrue(listed()[0]["persistent"])

    def test_a_read_write_lock_is_a_semaphore_of_readers_and_gate(self):
        with User("open-rwlock r", "begin-read r"), User("open-rwlock r") as writer:
            self.assert_line("r", rf"semaphore r: {KEY}, counter 2, values 1 1, waiters 0")
            # The writer waits for no reader to be left, not for units.
            writer.say("begin-write r")
            wait_until(lambda: "values 1 0, waiters 1" in line_of("r"), lambda: line_of("r"))

    def test_a_queue_that_nobody_used(self):
        with User("open-queue q"):
            self.assert_line(
                "q", rf"queue q: {KEY}, messages 0, bytes 0, last sender unknown, last receiver unknown"
            )
            self.assert_json(
                "q",
                kind="queue",
                path=f"{QUEUES}/q.kovamsg",
                messages=0,
                bytes=0,
                last_sender=None,
                last_receiver=None,
            )

    def test_a_queue_with_users_alive_and_dead(self):
        with User("open-queue q", "send q one", "send q three") as sender:
            with User("open-queue q", "receive q") as receiver:
                pass
            self.assert_line(
                "q",
                rf"queue q: {KEY}, messages 1, bytes 5, last sender {sender.pid} \(alive\), "
                rf"last receiver {receiver.pid} \(dead\)",
            )
            self.assert_json(
                "q",
                kind="queue",
                path=f"{QUEUES}/q.kovamsg",
                messages=1,
                bytes=5,
                last_sender={"pid": sender.pid, "state": "alive"},
                last_receiver={"pid": receiver.pid, "state": "dead"},
            )

    def test_a_key_file_alone_is_not_open(self):
        for name in ("m.kovamtx", "s.kovasem", "q.kovamsg"):
            key_file(name)
        self.assertEqual(
            re.sub("key 0x50[0-9a-f]{6}", "KEY", kova("ipc", "list").stdout.decode()),
            "mutex m: KEY, not open\nsemaphore s: KEY, not open\nqueue q: KEY, not open\n",
        )
        self.assertEqual([entry["id"] for entry in listed()], [None] * 3)

    def test_objects_are_ordered_by_kind_and_name(self):
        for name in ("a.kovamsg", "b.kovasem", "c.kovamtx", "d.kovamtx"):
            key_file(name)
        self.assertEqual([entry["name"] for entry in listed()], ["c", "d", "b", "a"])

    def test_names_with_slashes_and_dots(self):
        with User("open-mutex a/b.c"):
            self.assert_line("a/b.c", rf"mutex a/b\.c: {KEY}, counter 1, free, waiters 0")
            self.assertEqual(listed()[0]["path"], f"{LOCKS}/a/b.c.kovamtx")

    def test_other_files_are_no_key_files(self):
        for name in ("m.kovamtx.old", "kovamtx", ".kovamtx", "x.kovashm"):
            key_file(name)
        os.mkdir(f"{LOCKS}/d.kovamtx")
        self.assertEqual(listed(), [])

    def test_names_cannot_steer_a_terminal(self):
        key_file('a\x1b[2J\n"\\\u00e4.kovamtx')
        os.close(os.open(os.fsencode(LOCKS) + b"/\xff.kovamtx", os.O_CREAT | os.O_WRONLY))
        lines = kova("ipc", "list").stdout.decode().splitlines()
        self.assertEqual(
            [line.partition(":")[0] for line in lines], [r'mutex a\x1b[2J\x0a"\ä', r"mutex \xff"]
        )
        self.assertEqual([entry["name"] for entry in listed()], ['a\x1b[2J\n"\\ä', "\xff"])

    def test_what_lost_its_key_file_has_no_name(self):
        with User("open-semaphore s 3", "open-queue q", "send q x"):
            os.unlink(f"{LOCKS}/s.kovasem")
            os.unlink(f"{QUEUES}/q.kovamsg")
            lines = kova("ipc", "list").stdout.decode().splitlines()
            self.assertEqual(len(lines), 2)
            self.assertRegex(
                lines[0], rf"\Aset without a name \(key file gone\): {KEY}, values 1 0 3, waiters 0\Z"
            )
            self.assertRegex(
                lines[1], rf"\Aqueue without a name \(key file gone\): {KEY}, messages 1, bytes 1, last"
            )
            self.assertEqual(
                [(entry["kind"], entry["name"]) for entry in listed()], [("set", None), ("queue", None)]
            )

    def test_what_is_not_the_librarys_is_not_listed(self):
        for key in (0, 0x51000001, 0x4F000001):
            make_set(key, [1])
            make_queue(key)
        self.assertEqual(listed(), [])

    def test_a_set_that_cannot_be_a_mutex_is_shown_as_it_is(self):
        make_set(key_file("m.kovamtx"), [1, 2, 3])
        self.assert_line("m", rf"mutex m: {KEY}, values 1 2 3, waiters 0")
        make_set(key_file("s.kovasem"), [4])
        self.assert_line("s", rf"semaphore s: {KEY}, values 4, waiters 0")

    def test_no_privilege_is_needed(self):
        with User("open-mutex m", "lock m") as user:
            result = as_nobody(self, "ipc", "list")
            self.assert_ended(result, 0, output=rb"held by %d/%d \(alive\)" % (user.pid, user.pid))

    def test_what_cannot_be_read_is_told(self):
        make_set(key_file("m.kovamtx"), [1, 0, 0, 0, 0], mode=0o600)
        make_queue(key_file("q.kovamsg"), mode=0o600)
        result = as_nobody(self, "ipc", "list")
        denied = rb": key 0x50[0-9a-f]{6}, id \d+, cannot be read: Permission denied\n"
        self.assert_ended(result, 0, output=rb"\Amutex m%bqueue q%b\Z" % (denied, denied))
        entries = json.loads(as_nobody(self, "ipc", "list", "--json").stdout)
        self.assertEqual([entry["error"] for entry in entries], ["Permission denied"] * 2)

    def test_usage_errors(self):
        for arguments in (["ipc"], ["ipc", "list", "m"], ["ipc", "frob"]):
            self.assert_ended(kova(*arguments), 2, rb"\Akova: ", rb"\A\Z")

    def test_help(self):
        self.assert_ended(kova("ipc", "--help"), 0, output=rb"(?s)list.*clean")
        self.assert_ended(kova("ipc", "list", "--help"), 0, output=rb"(?s)--json.*Exit codes:")
        self.assert_ended(
            kova("ipc", "clean", "--help"), 0, output=rb"(?s)NAME.*--dry-run.*--persistent.*Exit codes:"
        )


class IpcClean(ToolTest):
    def assert_clean(self, expected, *arguments, code=0):
        """What the command prints: exact lines."""
        result = kova("ipc", "clean", *arguments)
        self.assert_ended(result, code)
        self.assertEqual(result.stdout.decode(), "".join(line + "\n" for line in expected))

    def dead(self, *lines):
        """The process id of a user that did this and was killed."""
        with User(*lines) as user:
            user.kill()
        return user.pid

    def names(self):
        """Names of the objects that exist."""
        return [entry["name"] for entry in listed() if entry["id"] is not None]

    def test_nothing_to_do(self):
        self.assert_clean(["nothing to clean"])
        key_file("m.kovamtx")
        self.assert_clean(["nothing to clean"])
        self.assert_clean(["nothing is named x"], "x")
        self.assert_clean(["mutex m is not open"], "m")

    def test_what_is_open_is_kept(self):
        with User("open-mutex m", "open-semaphore s 1"), User("open-semaphore s 1"):
            self.assert_clean(["kept mutex m: open once", "kept semaphore s: open 2 times"])
            self.assertEqual(self.names(), ["m", "s"])

    def test_a_killed_owner_leaves_a_mutex_to_remove(self):
        pid = self.dead("open-mutex m", "lock m")
        number = set_of("m")
        self.assert_clean([f"removed mutex m: nobody has it open, its last owner, process {pid}, is dead"])
        self.assertFalse(is_set(number))
        self.assertTrue(os.path.exists(f"{LOCKS}/m.kovamtx"))

    def test_a_killed_user_leaves_a_semaphore_to_remove(self):
        self.dead("open-semaphore s 1", "wait s -1 0")
        number = set_of("s")
        self.assert_clean(["removed semaphore s: nobody has it open"])
        self.assertFalse(is_set(number))

    def test_what_was_removed_can_be_made_again(self):
        self.dead("open-mutex m", "lock m", "open-queue q", "send q x", "receive q")
        self.assertEqual(kova("ipc", "clean").returncode, 0)
        with User("open-mutex m", "lock m", "unlock m", "open-queue q", "send q x", "receive q"):
            self.assertEqual(self.names(), ["m", "q"])

    def test_a_mutex_that_is_held_is_kept_whatever_its_counter_says(self):
        with User("open-mutex m") as first, User("open-mutex m", "lock m") as second:
            first.do("close-mutex m")
            first.end()
            self.assertEqual(listed()[0]["counter"], 0)
            self.assert_clean([f"kept mutex m: held by process {second.pid}, which is alive"])

    def test_a_mutex_is_kept_while_the_last_that_locked_it_lives(self):
        with User("open-mutex m") as first, User("open-mutex m", "lock m", "unlock m") as second:
            first.do("close-mutex m")
            first.end()
            self.assertEqual((listed()[0]["counter"], listed()[0]["held"]), (0, False))
            self.assert_clean([f"kept mutex m: used last by process {second.pid}, which is alive"])
            second.kill()
            self.assert_clean(["removed mutex m: nobody has it open"])

    def test_a_mutex_that_is_held_by_nobody_noted_is_kept_while_who_took_it_lives(self):
        number = make_set(key_file("m.kovamtx"), [1, 0, 0, 0, 0])
        ipc_user.set_value(number, 0, 0)
        self.assert_clean([f"kept mutex m: held, and taken by process {os.getpid()}, which is alive"])

    def test_what_somebody_waits_at_is_kept(self):
        with User("open-semaphore s 0") as user:
            user.say("wait s -1 0")
            wait_until(lambda: "waiters 1" in line_of("s"), lambda: line_of("s"))
            ipc_user.set_value(set_of("s"), 0, 0)
            self.assert_clean(["kept semaphore s: 1 waiting"])

    def test_a_writer_that_waits_for_readers_waits(self):
        with User("open-rwlock r", "begin-read r"), User("open-rwlock r") as writer:
            writer.say("begin-write r")
            wait_until(lambda: "waiters 1" in line_of("r"), lambda: line_of("r"))
            ipc_user.set_value(set_of("r"), 0, 0)
            self.assert_clean(["kept semaphore r: 1 waiting"])

    def test_persistent_ones_are_kept_unless_asked_for(self):
        self.dead("open-mutex m", "persist-mutex m", "open-semaphore s 1", "persist-semaphore s")
        self.assert_clean(
            [f"kept {name}: persistent (--persistent removes it)" for name in ("mutex m", "semaphore s")]
        )
        self.assert_clean(
            [f"removed {name}: nobody has it open, persistent" for name in ("mutex m", "semaphore s")],
            "--persistent",
        )
        self.assertEqual(self.names(), [])

    def test_persistent_ones_that_are_open_are_kept_always(self):
        with User("open-mutex m", "persist-mutex m"):
            self.assert_clean(["kept mutex m: open once"], "--persistent")

    def test_a_dry_run_removes_nothing(self):
        pid = self.dead(
            "open-mutex m", "lock m", "open-semaphore s 1", "open-queue q", "send q x", "receive q"
        )
        with User("open-mutex open"):
            self.assert_clean(
                [
                    f"would remove mutex m: nobody has it open, its last owner, process {pid}, is dead",
                    "kept mutex open: open once",
                    "would remove semaphore s: nobody has it open",
                    f"would remove queue q: its last sender, process {pid}, and its last receiver, "
                    f"process {pid}, are dead; messages left 0",
                ],
                "--dry-run",
            )
            self.assertEqual(self.names(), ["m", "open", "s", "q"])
            self.assertTrue(os.path.exists(f"{QUEUES}/q.kovamsg"))

    def test_names_choose(self):
        self.dead("open-mutex m", "open-semaphore m 1", "open-mutex n", "open-mutex a/b")
        self.assert_clean(
            ["removed mutex m: nobody has it open", "removed semaphore m: nobody has it open"], "m"
        )
        self.assert_clean(["nothing is named x", "removed mutex a/b: nobody has it open"], "x", "a/b")
        self.assertEqual(self.names(), ["n"])

    def test_names_that_are_paths_are_found_where_the_library_keeps_them(self):
        name = str(self.dir / "m")
        self.dead(f"open-mutex {name}")
        self.assert_clean([f"removed mutex {name}: nobody has it open"], name)

    def test_64_characters_of_a_name_count(self):
        name = "n" * 64
        self.dead(f"open-mutex {name}")
        self.assert_clean([f"removed mutex {name}tail: nobody has it open"], name + "tail")

    def test_queues_are_kept_until_both_users_are_known_and_dead(self):
        with User("open-queue q") as receiver:
            self.assert_clean(["kept queue q: nobody has used it yet"])
            with User("open-queue q", "send q one", "send q two") as sender:
                self.assert_clean(["kept queue q: its last receiver is not known"])
                receiver.do("receive q")
                self.assert_clean([f"kept queue q: its last sender, process {sender.pid}, is alive"])
            self.assert_clean([f"kept queue q: its last receiver, process {receiver.pid}, is alive"])
        key = key_file("q.kovamsg")
        self.assert_clean(
            [
                f"removed queue q: its last sender, process {sender.pid}, and its last receiver, "
                f"process {receiver.pid}, are dead; messages left 1"
            ]
        )
        self.assertFalse(is_queue(key))
        self.assertFalse(os.path.exists(f"{QUEUES}/q.kovamsg"))

    def test_the_key_file_of_a_queue_that_is_not_open_stays(self):
        key_file("q.kovamsg")
        self.assert_clean(["queue q is not open"], "q")
        self.assertTrue(os.path.exists(f"{QUEUES}/q.kovamsg"))

    def test_what_has_no_name_is_never_touched(self):
        self.dead("open-mutex m", "open-queue q", "send q x", "receive q")
        os.unlink(f"{LOCKS}/m.kovamtx")
        os.unlink(f"{QUEUES}/q.kovamsg")
        self.assert_clean(["nothing to clean"], "--persistent")
        self.assertEqual(len(listed()), 2)

    def test_a_set_that_cannot_be_a_mutex_is_kept(self):
        make_set(key_file("m.kovamtx"), [1, 0, 0])
        make_set(key_file("s.kovasem"), [0])
        self.assert_clean(
            ["kept mutex m: its set of 3 is no mutex", "kept semaphore s: its set of 1 is no semaphore"]
        )

    def test_an_object_that_two_names_lead_to_is_kept(self):
        self.dead("open-mutex m")
        os.link(f"{LOCKS}/m.kovamtx", f"{LOCKS}/n.kovasem")
        self.assert_clean(["kept mutex m: its key is also that of semaphore n"], "m")
        self.assert_clean(
            [
                "kept mutex m: its key is also that of semaphore n",
                "kept semaphore n: its key is also that of mutex m",
            ]
        )

    def test_nobody_opens_an_object_while_it_is_looked_at(self):
        self.dead("open-mutex m")
        with open(f"{LOCKS}/m.kovamtx", "r+b") as file:
            fcntl.lockf(file, fcntl.LOCK_EX)
            with Running("ipc", "clean") as clean:
                self.wait_for_blocked(clean.process.pid)
                self.assertEqual((clean.output, self.names()), (b"", ["m"]))
                fcntl.lockf(file, fcntl.LOCK_UN)
                self.assertEqual(clean.end(), 0)
        self.assertEqual(self.names(), [])

    def wait_for_blocked(self, pid):
        """Until the process waits for a record lock."""

        def blocked():
            with open("/proc/locks", encoding="ascii") as locks:
                return any(line.split()[1] == "->" and line.split()[5] == str(pid) for line in locks)

        wait_until(blocked, lambda: f"process {pid} waits for a lock")

    def test_a_removal_that_fails_is_told_and_the_rest_goes_on(self):
        self.dead("open-mutex m", "open-semaphore s 1", "open-queue q", "send q x", "receive q")
        result = as_nobody(self, "ipc", "clean")
        denied = rb": removal: Operation not permitted\n"
        self.assert_ended(
            result,
            1,
            rb"\Akova: cannot clean mutex m%bkova: cannot clean semaphore s%bkova: cannot clean queue q%b\Z"
            % (denied, denied, denied),
            rb"\A\Z",
        )
        self.assertEqual(self.names(), ["m", "s", "q"])
        self.assertTrue(os.path.exists(f"{QUEUES}/q.kovamsg"))

    def test_a_key_file_that_cannot_be_locked_is_told(self):
        self.dead("open-mutex m", "open-mutex n")
        os.chmod(f"{LOCKS}/m.kovamtx", 0o600)
        result = as_nobody(self, "ipc", "clean", "--dry-run")
        self.assert_ended(
            result,
            1,
            rb"\Akova: cannot clean mutex m: its key file: Permission denied\n\Z",
            rb"\Awould remove mutex n: ",
        )

    def test_no_privilege_is_needed_for_own_objects(self):
        path = f"{LOCKS}/m.kovamtx"
        key = key_file("m.kovamtx")
        pid = os.fork()
        if pid == 0:
            try:
                os.setgid(ipc_user.NOBODY)
                os.setuid(ipc_user.NOBODY)
                make_set(key, [1, 0, 0, 0, 0])
            finally:
                os._exit(0)
        os.waitpid(pid, 0)
        self.assert_ended(
            as_nobody(self, "ipc", "clean"), 0, output=rb"\Aremoved mutex m: nobody has it open\n\Z"
        )
        self.assertTrue(os.path.exists(path))

    def test_standard_input_may_be_closed(self):
        self.dead("open-mutex m")
        result = os.system(f"{ipc_user.KOVA} ipc clean <&- >{self.dir}/out 2>&1")
        self.assertEqual(result, 0)
        self.assertEqual((self.dir / "out").read_text(), "removed mutex m: nobody has it open\n")

    def test_usage_errors(self):
        for arguments in ([""], ["--frob"]):
            self.assert_ended(kova("ipc", "clean", *arguments), 2, rb"\Akova: ", rb"\A\Z")


if __name__ == "__main__":
    unittest.main()
