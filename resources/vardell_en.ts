<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en" sourcelanguage="en">
<context>
    <name>Vardell</name>
    <message>
        <source>Credit low format</source>
        <extracomment>%1 is the name of an application or "computer"; %2 is the same name or "your session".</extracomment>
        <translation>%1: 1 minute left. Please save your work now. In one minute %2 will be closed.</translation>
    </message>
    <message>
        <source>Credit low format disco</source>
        <extracomment>%1 and %2 as in "Credit low format". What is named ends when the message is clicked away.</extracomment>
        <translation>%1: your time is used up. When you click this message away, %2 will be closed.</translation>
    </message>
    <message>
        <source>Credit low format disco in 5</source>
        <extracomment>%1 and %2 as in "Credit low format".</extracomment>
        <translation>%1: 5 minutes left. Please finish what you are doing and save your work. In 5 minutes %2 will be closed.</translation>
    </message>
    <message>
        <source>Click to continue</source>
        <translation>Click to continue</translation>
    </message>
    <message>
        <source>your session</source>
        <translation>your session</translation>
    </message>
    <message>
        <source>computer</source>
        <translation>computer</translation>
    </message>
    <message>
        <source>Curfew early error</source>
        <extracomment>%1 is the name of an application or "computer", %2 the time of day at which it may be used.</extracomment>
        <translation>%1: it is too early. You can start at %2. Please save your work and stop now. If you are still here in one minute, it will be closed or you will be logged out.</translation>
    </message>
    <message>
        <source>Curfew late error</source>
        <extracomment>%1 is the name of an application or "computer", %2 the time of day at which it had to stop.</extracomment>
        <translation>%1: it is too late. The time for it ended at %2. Please save your work and stop now. If you are still here in one minute, you will be logged out.</translation>
    </message>
    <message>
        <source>This computer is locked</source>
        <translation>This computer is locked</translation>
    </message>
    <message>
        <source>Cannot contact server</source>
        <translation>Vardell cannot find its server, so it does not know how much time you have. Please ask the person who looks after this computer for help.</translation>
    </message>
    <message>
        <source>Cannot contact remote server</source>
        <translation>Vardell cannot find its server, so it does not know how much time you have. It tries again every two minutes, and this message goes away when the server answers.</translation>
    </message>
    <message>
        <source>Disk Space low format</source>
        <extracomment>%1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Your folder is too full. It holds %1, and %2 is allowed. Please delete files that you no longer need. If it is still too full in two minutes, you will be logged out.</translation>
    </message>
</context>
</TS>
