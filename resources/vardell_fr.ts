<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr" sourcelanguage="en">
<context>
    <name>Vardell</name>
    <message>
        <source>Credit low format</source>
        <extracomment>A warning. %1 is the name of an application or "computer"; %2 is the same name or "your session". A narrow blank, U+202F, stands before each colon.</extracomment>
        <translation>%1&#x202f;: il te reste 1 minute. Enregistre ton travail maintenant. Dans une minute, %2 va se fermer.</translation>
    </message>
    <message>
        <source>Credit low format disco</source>
        <extracomment>A warning. %1 and %2 as in "Credit low format". What is named ends when the message is clicked away.</extracomment>
        <translation>%1&#x202f;: ton temps est écoulé. Quand tu cliqueras sur ce message, ou au plus tard dans une minute, %2 se fermera.</translation>
    </message>
    <message>
        <source>Credit low format disco in 5</source>
        <extracomment>A warning. %1 and %2 as in "Credit low format".</extracomment>
        <translation>%1&#x202f;: il te reste 5 minutes. Termine ce que tu fais et enregistre ton travail. Dans 5 minutes, %2 va se fermer.</translation>
    </message>
    <message>
        <source>Click to continue</source>
        <extracomment>Stands under every message.</extracomment>
        <translation>Clique pour continuer</translation>
    </message>
    <message>
        <source>OK</source>
        <extracomment>The button of a warning.</extracomment>
        <translation>OK</translation>
    </message>
    <message>
        <source>your session</source>
        <extracomment>Stands as %2 in the sentences above, never at the beginning of one.</extracomment>
        <translation>ta session</translation>
    </message>
    <message>
        <source>computer</source>
        <extracomment>Stands for the whole session where a text names an application, and then begins a line.</extracomment>
        <translation>Ordinateur</translation>
    </message>
    <message>
        <source>Curfew early error</source>
        <extracomment>A warning. %1 is the name of an application or "computer", %2 the time of day at which it may be used, which may end with a full stop of its own. An application is closed or the person is logged out, by the day of the week.</extracomment>
        <translation>%1&#x202f;: il est encore trop tôt. Tu pourras commencer à %2. Enregistre ton travail et arrête-toi maintenant. Si tu continues, l’application ou ta session sera fermée dans une minute.</translation>
    </message>
    <message>
        <source>Curfew late error</source>
        <extracomment>A warning. %1 is the name of an application or "computer", %2 the time of day at which it had to stop, which may end so too.</extracomment>
        <translation>%1&#x202f;: il est trop tard pour aujourd’hui. C’était possible jusqu’à %2. Enregistre ton travail et arrête-toi maintenant. Si tu continues, ta session sera fermée dans une minute.</translation>
    </message>
    <message>
        <source>This computer is locked</source>
        <extracomment>Fills the screen until it is clicked.</extracomment>
        <translation>Cet ordinateur est verrouillé</translation>
    </message>
    <message>
        <source>Cannot contact server</source>
        <extracomment>Fills the screen; the agent does nothing more.</extracomment>
        <translation>Vardell ne trouve pas son serveur et ne sait donc pas combien de temps il te reste. Demande de l’aide à la personne qui s’occupe de cet ordinateur.</translation>
    </message>
    <message>
        <source>Cannot contact remote server</source>
        <extracomment>Fills the screen.</extracomment>
        <translation>Vardell ne trouve pas son serveur et ne sait donc pas combien de temps il te reste. Vardell réessaie toutes les deux minutes, et ce message disparaîtra dès que le serveur répondra.</translation>
    </message>
    <message>
        <source>Disk Space low format</source>
        <extracomment>Fills the screen. %1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Ton dossier personnel est trop plein. Il contient %1, et la limite est de %2. Supprime les fichiers dont tu n’as plus besoin. S’il est encore trop plein dans deux minutes, ta session sera fermée.</translation>
    </message>
    <message>
        <source>Credit format</source>
        <extracomment>In a strip of one line, alone or with "Disk Quota Credit format" after it. %1 is the name of an application or "computer", %2 the time left, "1 hour 5 minutes".</extracomment>
        <translation>%1&#x202f;: il reste %2.</translation>
    </message>
    <message>
        <source>Not watching</source>
        <extracomment>In that strip where nothing in front has a limit.</extracomment>
        <translation>Pas de limite de temps ici.</translation>
    </message>
    <message>
        <source>Disk Quota Credit format</source>
        <extracomment>In that strip, alone or after "Credit format" and a blank. %1 is the time until the person is logged out because the home folder is too full.</extracomment>
        <translation>Dossier personnel trop plein&#x202f;: ta session sera fermée dans %1.</translation>
    </message>
    <message>
        <source>Status Item Credit Format</source>
        <extracomment>A line of a menu whose icon says "Time left". %1 is the time left, %2 the name of an application or "computer".</extracomment>
        <translation>%2&#x202f;: %1</translation>
    </message>
    <message>
        <source>No app watch</source>
        <extracomment>In that menu, in the place of those lines, where there are none.</extracomment>
        <translation>Pas de limite de temps en ce moment</translation>
    </message>
    <message>
        <source>Disk usage</source>
        <extracomment>A line of that menu. %1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Dossier personnel&#x202f;: %1 sur %2</translation>
    </message>
    <message>
        <source>No disk watch</source>
        <extracomment>In that menu, where the home folder may have any size.</extracomment>
        <translation>Dossier personnel&#x202f;: pas de limite</translation>
    </message>
    <message>
        <source>Lock computer</source>
        <extracomment>A command of that menu.</extracomment>
        <translation>Verrouiller l’ordinateur</translation>
    </message>
    <message>
        <source>Time left</source>
        <extracomment>The name of the icon of that menu.</extracomment>
        <translation>Temps restant</translation>
    </message>
    <message>
        <source>hour</source>
        <extracomment>After a number. From 2 on an "s" is put after the word, in every language.</extracomment>
        <translation>heure</translation>
    </message>
    <message>
        <source>minute</source>
        <extracomment>As "hour".</extracomment>
        <translation>minute</translation>
    </message>
    <message>
        <source>second</source>
        <extracomment>As "hour".</extracomment>
        <translation>seconde</translation>
    </message>
    <message>
        <source>B</source>
        <extracomment>Bytes, after a number.</extracomment>
        <translation>o</translation>
    </message>
    <message>
        <source>KB</source>
        <extracomment>1024 bytes.</extracomment>
        <translation>Ko</translation>
    </message>
    <message>
        <source>MB</source>
        <extracomment>1024 KB.</extracomment>
        <translation>Mo</translation>
    </message>
    <message>
        <source>GB</source>
        <extracomment>1024 MB.</extracomment>
        <translation>Go</translation>
    </message>
</context>
</TS>
