<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de" sourcelanguage="en">
<context>
    <name>Vardell</name>
    <message>
        <source>Credit low format</source>
        <extracomment>A warning. %1 is the name of an application or "computer"; %2 is the same name or "your session".</extracomment>
        <translation>%1: noch 1 Minute. Bitte speichere jetzt, was du gemacht hast. In einer Minute wird %2 beendet.</translation>
    </message>
    <message>
        <source>Credit low format disco</source>
        <extracomment>A warning. %1 and %2 as in "Credit low format". What is named ends when the message is clicked away.</extracomment>
        <translation>%1: Deine Zeit ist aufgebraucht. Wenn du diese Meldung wegklickst, spätestens aber in einer Minute, wird %2 beendet.</translation>
    </message>
    <message>
        <source>Credit low format disco in 5</source>
        <extracomment>A warning. %1 and %2 as in "Credit low format".</extracomment>
        <translation>%1: noch 5 Minuten. Mach fertig, was du gerade tust, und speichere es. In 5 Minuten wird %2 beendet.</translation>
    </message>
    <message>
        <source>Click to continue</source>
        <extracomment>Stands under every message.</extracomment>
        <translation>Klicke, um fortzufahren</translation>
    </message>
    <message>
        <source>OK</source>
        <extracomment>The button of a warning.</extracomment>
        <translation>OK</translation>
    </message>
    <message>
        <source>your session</source>
        <extracomment>Stands as %2 in the sentences above, never at the beginning of one. Nominative in all of them.</extracomment>
        <translation>deine Sitzung</translation>
    </message>
    <message>
        <source>computer</source>
        <extracomment>Stands for the whole session where a text names an application, and then begins a line.</extracomment>
        <translation>Computer</translation>
    </message>
    <message>
        <source>Curfew early error</source>
        <extracomment>A warning. %1 is the name of an application or "computer", %2 the time of day at which it may be used, which may end with a full stop of its own. An application is closed or the person is logged out, by the day of the week.</extracomment>
        <translation>%1: Es ist noch zu früh. Du kannst um %2 anfangen. Bitte speichere jetzt und hör auf. Wenn du weitermachst, wird in einer Minute das Programm oder deine Sitzung beendet.</translation>
    </message>
    <message>
        <source>Curfew late error</source>
        <extracomment>A warning. %1 is the name of an application or "computer", %2 the time of day at which it had to stop, which may end so too.</extracomment>
        <translation>%1: Für heute ist es zu spät. Die Zeit dafür war um %2 zu Ende. Bitte speichere jetzt und hör auf. Wenn du weitermachst, wirst du in einer Minute abgemeldet.</translation>
    </message>
    <message>
        <source>This computer is locked</source>
        <extracomment>Fills the screen until it is clicked.</extracomment>
        <translation>Dieser Computer ist gesperrt</translation>
    </message>
    <message>
        <source>Cannot contact server</source>
        <extracomment>Fills the screen; the agent does nothing more.</extracomment>
        <translation>Vardell findet seinen Server nicht und weiß deshalb nicht, wie viel Zeit du hast. Bitte hol dir Hilfe bei der Person, die sich um diesen Computer kümmert.</translation>
    </message>
    <message>
        <source>Cannot contact remote server</source>
        <extracomment>Fills the screen.</extracomment>
        <translation>Vardell findet seinen Server nicht und weiß deshalb nicht, wie viel Zeit du hast. Alle zwei Minuten sucht es ihn wieder, und sobald er antwortet, verschwindet diese Meldung.</translation>
    </message>
    <message>
        <source>Disk Space low format</source>
        <extracomment>Fills the screen. %1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Dein persönlicher Ordner ist zu voll. Darin sind %1, und erlaubt sind %2. Bitte lösche Dateien, die du nicht mehr brauchst. Wenn er in zwei Minuten immer noch zu voll ist, wirst du abgemeldet.</translation>
    </message>
    <message>
        <source>Credit format</source>
        <extracomment>In a strip of one line, alone or with "Disk Quota Credit format" after it. %1 is the name of an application or "computer", %2 the time left, "1 hour 5 minutes".</extracomment>
        <translation>%1: noch %2.</translation>
    </message>
    <message>
        <source>Not watching</source>
        <extracomment>In that strip where nothing in front has a limit.</extracomment>
        <translation>Hier gibt es kein Zeitlimit.</translation>
    </message>
    <message>
        <source>Disk Quota Credit format</source>
        <extracomment>In that strip, alone or after "Credit format" and a blank. %1 is the time until the person is logged out because the home folder is too full.</extracomment>
        <translation>Persönlicher Ordner zu voll: In %1 wirst du abgemeldet.</translation>
    </message>
    <message>
        <source>Status Item Credit Format</source>
        <extracomment>A line of a menu whose icon says "Time left". %1 is the time left, %2 the name of an application or "computer".</extracomment>
        <translation>%2: noch %1</translation>
    </message>
    <message>
        <source>No app watch</source>
        <extracomment>In that menu, in the place of those lines, where there are none.</extracomment>
        <translation>Gerade kein Zeitlimit</translation>
    </message>
    <message>
        <source>Disk usage</source>
        <extracomment>A line of that menu. %1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Persönlicher Ordner: %1 von %2</translation>
    </message>
    <message>
        <source>No disk watch</source>
        <extracomment>In that menu, where the home folder may have any size.</extracomment>
        <translation>Persönlicher Ordner: kein Limit</translation>
    </message>
    <message>
        <source>Lock computer</source>
        <extracomment>A command of that menu.</extracomment>
        <translation>Computer sperren</translation>
    </message>
    <message>
        <source>Time left</source>
        <extracomment>The name of the icon of that menu.</extracomment>
        <translation>Verbleibende Zeit</translation>
    </message>
    <message>
        <source>hour</source>
        <extracomment>After a number. From 2 on an "s" is put after the word, in every language. The German plurals end otherwise, hence abbreviations that bear it, and are the same in every case: "2 Stds 5 Mins", "45 Secs".</extracomment>
        <translation>Std</translation>
    </message>
    <message>
        <source>minute</source>
        <extracomment>As "hour".</extracomment>
        <translation>Min</translation>
    </message>
    <message>
        <source>second</source>
        <extracomment>As "hour".</extracomment>
        <translation>Sec</translation>
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
