<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es" sourcelanguage="en">
<context>
    <name>Vardell</name>
    <message>
        <source>Credit low format</source>
        <extracomment>A warning. %1 is the name of an application or "computer"; %2 is the same name or "your session".</extracomment>
        <translation>%1: te queda 1 minuto. Guarda ahora tu trabajo. Dentro de un minuto se cerrará %2.</translation>
    </message>
    <message>
        <source>Credit low format disco</source>
        <extracomment>A warning. %1 and %2 as in "Credit low format". What is named ends when the message is clicked away.</extracomment>
        <translation>%1: se te ha acabado el tiempo. Cuando hagas clic en este mensaje, o como mucho dentro de un minuto, se cerrará %2.</translation>
    </message>
    <message>
        <source>Credit low format disco in 5</source>
        <extracomment>A warning. %1 and %2 as in "Credit low format".</extracomment>
        <translation>%1: te quedan 5 minutos. Termina lo que estás haciendo y guarda tu trabajo. Dentro de 5 minutos se cerrará %2.</translation>
    </message>
    <message>
        <source>Click to continue</source>
        <extracomment>Stands under every message.</extracomment>
        <translation>Haz clic para continuar</translation>
    </message>
    <message>
        <source>OK</source>
        <extracomment>The button of a warning.</extracomment>
        <translation>Aceptar</translation>
    </message>
    <message>
        <source>your session</source>
        <extracomment>Stands as %2 in the sentences above, never at the beginning of one.</extracomment>
        <translation>tu sesión</translation>
    </message>
    <message>
        <source>computer</source>
        <extracomment>Stands for the whole session where a text names an application, and then begins a line.</extracomment>
        <translation>Ordenador</translation>
    </message>
    <message>
        <source>Curfew early error</source>
        <extracomment>A warning. %1 is the name of an application or "computer", %2 the time of day at which it may be used, which may end with a full stop of its own. An application is closed or the person is logged out, by the day of the week. The time stands in brackets: it may be 1:00 as well as 2:00.</extracomment>
        <translation>%1: todavía es demasiado pronto. Aún no es la hora de empezar (%2). Guarda tu trabajo y déjalo por ahora. Si sigues, dentro de un minuto se cerrará la aplicación o tu sesión.</translation>
    </message>
    <message>
        <source>Curfew late error</source>
        <extracomment>A warning. %1 is the name of an application or "computer", %2 the time of day at which it had to stop, which may end so too.</extracomment>
        <translation>%1: por hoy es demasiado tarde. La hora de parar (%2) ya ha pasado. Guarda tu trabajo y déjalo por hoy. Si sigues, dentro de un minuto se cerrará tu sesión.</translation>
    </message>
    <message>
        <source>This computer is locked</source>
        <extracomment>Fills the screen until it is clicked.</extracomment>
        <translation>Este ordenador está bloqueado</translation>
    </message>
    <message>
        <source>Cannot contact server</source>
        <extracomment>Fills the screen; the agent does nothing more.</extracomment>
        <translation>Vardell no encuentra su servidor y por eso no sabe cuánto tiempo tienes. Pide ayuda a la persona que se ocupa de este ordenador.</translation>
    </message>
    <message>
        <source>Cannot contact remote server</source>
        <extracomment>Fills the screen.</extracomment>
        <translation>Vardell no encuentra su servidor y por eso no sabe cuánto tiempo tienes. Lo vuelve a intentar cada dos minutos, y este mensaje desaparecerá en cuanto el servidor responda.</translation>
    </message>
    <message>
        <source>Disk Space low format</source>
        <extracomment>Fills the screen. %1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Tu carpeta personal está demasiado llena. Ocupa %1 y puede ocupar hasta %2. Borra los archivos que ya no necesites. Si dentro de dos minutos sigue demasiado llena, se cerrará tu sesión.</translation>
    </message>
    <message>
        <source>Credit format</source>
        <extracomment>In a strip of one line, alone or with "Disk Quota Credit format" after it. %1 is the name of an application or "computer", %2 the time left, "1 hour 5 minutes". The verb does not depend on the number.</extracomment>
        <translation>%1: aún tienes %2.</translation>
    </message>
    <message>
        <source>Not watching</source>
        <extracomment>In that strip where nothing in front has a limit.</extracomment>
        <translation>Aquí no hay límite de tiempo.</translation>
    </message>
    <message>
        <source>Disk Quota Credit format</source>
        <extracomment>In that strip, alone or after "Credit format" and a blank. %1 is the time until the person is logged out because the home folder is too full.</extracomment>
        <translation>Carpeta personal demasiado llena: tu sesión se cerrará dentro de %1.</translation>
    </message>
    <message>
        <source>Status Item Credit Format</source>
        <extracomment>A line of a menu whose icon says "Time left". %1 is the time left, %2 the name of an application or "computer".</extracomment>
        <translation>%2: %1</translation>
    </message>
    <message>
        <source>No app watch</source>
        <extracomment>In that menu, in the place of those lines, where there are none.</extracomment>
        <translation>Ahora no hay límites de tiempo</translation>
    </message>
    <message>
        <source>Disk usage</source>
        <extracomment>A line of that menu. %1 is the size of the home folder, %2 the size that it may have, both with their units.</extracomment>
        <translation>Carpeta personal: %1 de %2</translation>
    </message>
    <message>
        <source>No disk watch</source>
        <extracomment>In that menu, where the home folder may have any size.</extracomment>
        <translation>Carpeta personal: sin límite</translation>
    </message>
    <message>
        <source>Lock computer</source>
        <extracomment>A command of that menu.</extracomment>
        <translation>Bloquear el ordenador</translation>
    </message>
    <message>
        <source>Time left</source>
        <extracomment>The name of the icon of that menu.</extracomment>
        <translation>Tiempo restante</translation>
    </message>
    <message>
        <source>hour</source>
        <extracomment>After a number. From 2 on an "s" is put after the word, in every language.</extracomment>
        <translation>hora</translation>
    </message>
    <message>
        <source>minute</source>
        <extracomment>As "hour".</extracomment>
        <translation>minuto</translation>
    </message>
    <message>
        <source>second</source>
        <extracomment>As "hour".</extracomment>
        <translation>segundo</translation>
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
