#!/usr/bin/python3
"""Prints "ID<tab>NAME" of each application that GLib would offer, from the given folders and those
directly inside. XDG_DATA_DIRS must name the folders' parents in the same order."""

import os
import sys

from gi.repository import Gio

for application in Gio.AppInfo.get_all():
    if not application.should_show():
        continue
    for folder in sys.argv[1:]:
        below = os.path.relpath(application.get_filename(), folder)
        if not below.startswith("..") and below.count("/") <= 1:
            print(application.get_id().removesuffix(".desktop"), application.get_name(), sep="\t")
