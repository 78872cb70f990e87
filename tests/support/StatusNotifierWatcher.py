"""A StatusNotifierWatcher for tests: StatusNotifierWatcher.py [host]; with a host at once, or later."""

import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

NAME, PATH = "org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher"
# Without the interface of properties: Qt never frees what it makes of the types in there.
XML = f"""<node><interface name="{NAME}">
  <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
</interface></node>"""


class Watcher(dbus.service.Object):
    items, has_host = dbus.Array(signature="s"), sys.argv[1:] == ["host"]

    @dbus.service.method("org.freedesktop.DBus.Introspectable", "", "s")
    def Introspect(self):
        return XML

    @dbus.service.method("org.freedesktop.DBus.Properties", "ss", "v")
    def Get(self, interface, name):
        return self.has_host

    @dbus.service.method(NAME, "s", "")
    def RegisterStatusNotifierItem(self, item):
        self.items.append(item)

    @dbus.service.method(NAME, "", "as")
    def Items(self):
        return self.items

    @dbus.service.method(NAME, "", "")
    def HostComes(self):
        self.has_host = True
        self.StatusNotifierHostRegistered()

    @dbus.service.signal(NAME)
    def StatusNotifierHostRegistered(self):
        pass


DBusGMainLoop(set_as_default=True)
watcher = Watcher(dbus.SessionBus(), PATH)
name = dbus.service.BusName(NAME, dbus.SessionBus())
GLib.MainLoop().run()
