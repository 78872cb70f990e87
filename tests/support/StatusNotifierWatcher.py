"""A StatusNotifierWatcher for tests, as a template of dbusmock:

    /usr/bin/python3 -m dbusmock --session --template StatusNotifierWatcher.py [-p '{"host": true}']
"""

import dbus

BUS_NAME = "org.kde.StatusNotifierWatcher"
MAIN_OBJ = "/StatusNotifierWatcher"
MAIN_IFACE = "org.kde.StatusNotifierWatcher"
SYSTEM_BUS = False


def load(mock, parameters):
    mock.AddProperties(MAIN_IFACE, dbus.Dictionary({
        "IsStatusNotifierHostRegistered": parameters.get("host", False),
        "RegisteredStatusNotifierItems": dbus.Array([], signature="s"),
    }, signature="sv"))
    mock.AddMethod(MAIN_IFACE, "RegisterStatusNotifierItem", "s", "", """
items = self.Get("%(face)s", "RegisteredStatusNotifierItems")
self.UpdateProperties("%(face)s", {"RegisteredStatusNotifierItems":
                                   dbus.Array(list(items) + [args[0]], signature="s")})
""" % {"face": MAIN_IFACE})
