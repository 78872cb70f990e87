<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en" sourcelanguage="en">
<context>
    <name>Vardell</name>
    <message>
        <source>Credit low format</source>
        <extracomment>A warning. %1 is the name of an application or "computer"; %2 is the same name or "your session".</extracomment>
        <translation>%1: 1 minute left. Please save your work now. In one minute %2 will be closed.</translation>
    </message>
    <message>
        <source>Credit low format disco</source>
        <extracomment>A warning. %1 and %2 as in "Credit low format". What is named ends when the message is clicked away.</extracomment>
        <translation>%1: your time is used up. When you click this message away, or in one minute at the latest, %2 will be closed.</translation>
    </message>
    <message>
        <source>Credit low format disco in 5</source>
        <extracomment>A warning. %1 and %2 as in "Credit low format".</extracomment>
        <translation>%1: 5 minutes left. Please finish what you are doing and save your work. In 5 minutes %2 will be closed.</translation>
    </message>
    <message>
        <source>Click to continue</source>
        <extracomment>Stands under every message.</extracomment>
        <translation>Click to continue</translation>
    </message>
    <message>
        <source>OK</source>
        <extracomment>The button of a warning.</extracomment>
        <translation>OK</translation>
    </message>
    <message>
        <source>your session</source>
        <extracomment>Stands as %2 in the sentences above, never at the beginning of one.</extracomment>
        <translation>your session</translation>
    </message>
    <message>
        <source>computer</source>
        <extracomment>Stands for the whole session where a text names an application, and then begins a line.</extracomment>
        <translation>Computer</translation>
    </message>
    <message>
        <source>Curfew early error</source>
        <extracomment>A warning. %1 is the name of an application or "computer", %2 the time of day at which it may be used, which may end with a full stop of its own. An application is closed or the person is logged out, by the day of the week.</extracomment>
        <translation>%1: it is too early. You can start at %2 today. Please save your work and stop now. If you go on, it will be closed or you will be logged out in one minute.</translation>
    </message>
    <message>
        <source>Curfew late error</source>
        <extracomment>A warning. %1 is the name of an application or "computer", %2 the time of day at which it had to stop, which may end so too.</extracomment>
        <translation>%1: it is too late. The time for it ended at %2 today. Please save your work and stop now. If you go on, you will be logged out in one minute.</translation>
    </message>
    <message>
        <source>This computer is locked</source>
        <extracomment>Fills the screen until it is clicked.</extracomment>
        <translation>This computer is locked</translation>
    </message>
    <message>
        <source>Cannot contact server</source>
        <extracomment>Fills the screen; the agent does nothing more.</extracomment>
        <translation>Vardell cannot find its server, so it does not know how much time you have. Please ask the person who looks after this computer for help.</translation>
    </message>
    <message>
        <source>Cannot contact remote server</source>
        <extracomment>Fills the screen.</extracomment>
        <translation>Vardell cannot find its server, so it does not know how much time you have. It tries again every two minutes, and this message goes away when the server answers.</translation>
    </message>
    <message>
        <source>Disk Space low format</source>
        <extracomment>Fills the screen. %1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Your home folder is too full. It holds %1, and %2 is allowed. Please delete files that you no longer need. If it is still too full in two minutes, you will be logged out.</translation>
    </message>
    <message>
        <source>Credit format</source>
        <extracomment>In a strip of one line, alone or with "Disk Quota Credit format" after it. %1 is the name of an application or "computer", %2 the time left, "1 hour 5 minutes".</extracomment>
        <translation>%1: %2 left.</translation>
    </message>
    <message>
        <source>Not watching</source>
        <extracomment>In that strip where nothing in front has a limit.</extracomment>
        <translation>No time limit here.</translation>
    </message>
    <message>
        <source>Disk Quota Credit format</source>
        <extracomment>In that strip, alone or after "Credit format" and a blank. %1 is the time until the person is logged out because the home folder is too full.</extracomment>
        <translation>Home folder too full: you will be logged out in %1.</translation>
    </message>
    <message>
        <source>Status Item Credit Format</source>
        <extracomment>A line of a menu whose icon says "Time left". %1 is the time left, %2 the name of an application or "computer".</extracomment>
        <translation>%2: %1</translation>
    </message>
    <message>
        <source>No app watch</source>
        <extracomment>In that menu, in the place of those lines, where there are none.</extracomment>
        <translation>No time limits right now</translation>
    </message>
    <message>
        <source>Disk usage</source>
        <extracomment>A line of that menu. %1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Home folder: %1 of %2</translation>
    </message>
    <message>
        <source>No disk watch</source>
        <extracomment>In that menu, where the home folder may have any size.</extracomment>
        <translation>Home folder: no limit</translation>
    </message>
    <message>
        <source>Lock computer</source>
        <extracomment>A command of that menu.</extracomment>
        <translation>Lock computer</translation>
    </message>
    <message>
        <source>Time left</source>
        <extracomment>The name of the icon of that menu.</extracomment>
        <translation>Time left</translation>
    </message>
    <message>
        <source>hour</source>
        <extracomment>After a number. From 2 on an "s" is put after the word, in every language.</extracomment>
        <translation>hour</translation>
    </message>
    <message>
        <source>minute</source>
        <extracomment>As "hour".</extracomment>
        <translation>minute</translation>
    </message>
    <message>
        <source>second</source>
        <extracomment>As "hour".</extracomment>
        <translation>second</translation>
    </message>
    <message>
        <source>B</source>
        <extracomment>Bytes, after a number.</extracomment>
        <translation>B</translation>
    </message>
    <message>
        <source>KB</source>
        <extracomment>1024 bytes.</extracomment>
        <translation>KB</translation>
    </message>
    <message>
        <source>MB</source>
        <extracomment>1024 KB.</extracomment>
        <translation>MB</translation>
    </message>
    <message>
        <source>GB</source>
        <extracomment>1024 MB.</extracomment>
        <translation>GB</translation>
    </message>
</context>
</TS>
