"""The GObject client from Python, on a GLib main loop, against a real service
started on demand in a private socket folder."""
import errno
import os
import shutil
import tempfile
import threading
import time
import unittest

import gi

gi.require_version("Qxfile", "1.0")
gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib, Qxfile  # noqa: E402

WRITE_DATA, DELETE = 0x4, 0x10


class QxfileFromPython(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="qx-gi-")
        self.addCleanup(shutil.rmtree, self.root)
        sockets = os.path.join(self.root, "sockets")
        os.mkdir(sockets, 0o700)
        os.environ["QXFILE_SOCKET_DIR"] = sockets
        os.environ["QXFILE_IDLE_EXIT_MS"] = "300"
        self.client = Qxfile.Client.new()
        self.assertTrue(self.client.connect())
        self.loop = GLib.MainLoop()

    def files(self, folder, count, size):
        path = os.path.join(self.root, folder)
        os.mkdir(path)
        for i in range(count):
            with open(os.path.join(path, "f%03d" % i), "wb") as f:
                f.write(b"x" * size)
        return path

    def wait(self, start, finish, *args):
        """Starts an async call and runs the loop until it has finished."""
        outcome = {}

        def done(client, result):
            outcome["result"] = result
            try:
                outcome["value"] = finish(result)
            except GLib.Error as error:
                outcome["error"] = error
            self.loop.quit()

        start(*args, None, done)
        GLib.timeout_add_seconds(20, self.loop.quit)
        self.loop.run()
        self.assertTrue(outcome, "no answer within 20 s")
        return outcome

    def test_two_calculations_one_cancelled_midway(self):
        folders = {"sevens": self.files("sevens", 900, 7),
                   "thousands": self.files("thousands", 900, 1000)}
        cancellable = Gio.Cancellable()
        heard = {"sevens": [], "thousands": []}
        finished = {}
        threads = set()

        def start(name, cancels):
            def on_updates(updates, *user_data):
                threads.add(threading.get_ident())
                heard[name].append([u.get_size() for u in updates])
                if cancels:
                    time.sleep(0.2)  # the calculation's next reports queue up behind this one
                    cancellable.cancel()

            def on_done(client, result):
                try:
                    finished[name] = client.get_sizes_finish(result)
                except GLib.Error as error:
                    finished[name] = error
                if len(finished) == 2:
                    self.loop.quit()

            self.client.get_sizes_async(paths=[folders[name]], progress=on_updates,
                                        cancellable=cancellable if cancels else None,
                                        callback=on_done)

        # The first is started before the loop runs, so its first reports come
        # while nothing iterates the context; the second from the running loop.
        start("thousands", False)
        time.sleep(0.3)
        GLib.idle_add(start, "sevens", True)
        GLib.timeout_add_seconds(20, self.loop.quit)
        self.loop.run()

        self.assertEqual(threads, {threading.get_ident()}, "progress runs on the caller's context")

        self.assertIsInstance(finished["sevens"], GLib.Error)
        self.assertTrue(finished["sevens"].matches(Gio.io_error_quark(),
                                                   Gio.IOErrorEnum.CANCELLED))
        self.assertEqual(len(heard["sevens"]), 1, "no report reaches a cancelled call")
        last = finished["thousands"]
        root = [u.get_size() for u in last if list(u.get_index_path()) == []]
        self.assertEqual(root, [900 * 1000])
        self.assertGreaterEqual(len(heard["thousands"]), 9)
        for sizes in heard["sevens"]:
            self.assertTrue(all(s % 7 == 0 for s in sizes), sizes)
        for sizes in heard["thousands"]:
            self.assertTrue(all(s % 1000 == 0 for s in sizes), sizes)

    def test_acl_read_and_write(self):
        item = os.path.join(self.files("acl", 1, 1), "f000")
        listing = self.wait(self.client.get_acl_async, self.client.get_acl_finish, item)["value"]
        self.assertFalse(listing.get_folder())
        self.assertEqual(listing.get_owner_id(), os.getuid())
        gid = os.getgid()
        listing.insert_entry(Qxfile.AclEntry.new(Qxfile.IdentityKind.GROUP, gid, True,
                                                 WRITE_DATA | DELETE, 0), -1)
        listing.set_mode(0o640)
        outcome = self.wait(self.client.set_acl_async, self.client.set_acl_finish, item, listing)
        self.assertTrue(outcome.get("value"), outcome.get("error"))
        self.assertEqual(os.stat(item).st_mode & 0o777, 0o640)
        reread = self.wait(self.client.get_acl_async, self.client.get_acl_finish, item)["value"]
        entries = reread.get_entries()
        self.assertEqual(len(entries), 1)
        self.assertEqual(entries[0].get_identity_kind(), Qxfile.IdentityKind.GROUP)
        self.assertEqual(entries[0].get_identity_id(), gid)
        self.assertTrue(entries[0].get_deny())
        self.assertEqual(entries[0].get_rights(), WRITE_DATA | DELETE)

    def test_errors_keep_their_details(self):
        """The details the service sends with an error reach Python through the
        call's result, for a failed call and for a batch that failed partway."""
        missing = os.path.join(self.root, "missing")
        folder = self.files("taken", 4, 1)
        first, second, third = (os.path.join(folder, "f%03d" % i) for i in range(3))
        cases = [
            ("acl of a missing item", self.client.get_acl_async, self.client.get_acl_finish,
             (missing,), Qxfile.Error.NOT_FOUND, missing,
             "Error retrieving file Access Control List entries",
             'Couldn\'t retrieve file stat for file at path "%s". No such file or directory'
             % missing),
            ("rename onto a taken name", self.client.rename_async, self.client.rename_finish,
             ([first, second, third], ["g0", "f003", "g2"]), errno.EEXIST, second,
             "Error renaming files",
             'Couldn\'t rename file at path "%s". File exists' % second),
        ]
        for name, start, finish, args, code, path, description, suggestion in cases:
            with self.subTest(name):
                outcome = self.wait(start, finish, *args)
                error = outcome.get("error") or outcome["value"].get_error()
                self.assertTrue(error.matches(Qxfile.error_quark(), code), error)
                self.assertEqual(error.message, description)
                info = Qxfile.ErrorInfo.from_result(outcome["result"])
                self.assertEqual((info.get_code(), info.get_description(),
                                  info.get_recovery_suggestion(), info.get_path()),
                                 (code, description, suggestion, path))

        # The batch above failed at its middle item, after renaming the first.
        self.assertEqual(outcome["value"].get_renamed(), [os.path.join(folder, "g0")])
        self.assertEqual(outcome["value"].get_previous_names(), ["f000"])

    def test_listing_and_batch_rename(self):
        folder = self.files("batch", 3, 1)
        refs = self.wait(self.client.list_contents_async, self.client.list_contents_finish,
                         folder, None)["value"]
        paths = sorted(r.get_kept_path() for r in refs)
        self.assertEqual(paths, [os.path.join(folder, "f%03d" % i) for i in range(3)])
        self.assertEqual({r.get_level() for r in refs}, {0})
        self.assertEqual(refs[0].get_inode(), os.lstat(refs[0].get_kept_path()).st_ino)

        outcome = self.wait(self.client.rename_async, self.client.rename_finish,
                            paths, ["g0", "g1", "g2"])
        batch = outcome["value"]
        self.assertIsNone(batch.get_error())
        self.assertIsNone(Qxfile.ErrorInfo.from_result(outcome["result"]))


if __name__ == "__main__":
    unittest.main()
