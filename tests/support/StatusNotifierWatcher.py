"""A StatusNotifierWatcher for tests, as a template of dbusmock:

    /usr/bin/python3 -m dbusmock --session --template StatusNotifierWatcher.py [-p '{"host": true}']
"""

import dbus

BUS_NAME = MAIN_IFACE = "org.kde.StatusNotifierWatcher"
MAIN_OBJ = "/StatusNotifierWatcher"
SYSTEM_BUS = False


def load(mock, parameters):
    mock.items = dbus.Array([], signature="s")
    mock.AddProperty(MAIN_IFACE, "IsStatusNotifierHostRegistered", parameters.get("host", False))
    mock.AddMethod(MAIN_IFACE, "RegisterStatusNotifierItem", "s", "", "self.items.append(args[0])")
    mock.AddMethod(MAIN_IFACE, "Items", "", "as", "ret = self.items")
    mock.AddMethod(MAIN_IFACE, "HostComes", "", "", f"""
self.UpdateProperties("{MAIN_IFACE}", {{"IsStatusNotifierHostRegistered": dbus.Boolean(True)}})
self.EmitSignal("{MAIN_IFACE}", "StatusNotifierHostRegistered", "", [])""")
