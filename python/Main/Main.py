"""The application's entry script.

The launcher carries this file inside itself and runs it as the module __main__. It brings up the
application's environment and logging, makes the temporary directory, picks the run mode, hands
over to that mode's module, and cancels renders and lets go of the node graph on the way out.
"""

import _thread
import errno
import logging
import os.path
import sys
import warnings

# The system's own expat must be loaded before a library of the application brings another one.
from xml.parsers import expat

import ConfigurationAPI_cmodule as Configuration
import PluginSystemAPI_cmodule as PluginSystem

import AnalyzeThat
import AnalyzeThis
import MainEnvironment
import MainLogging
import MainOptions

MainEnvironment.Init()
MainLogging.Init()

# Imported by ProcessEnvironmentVariables. Until then None, so that the clean-up of a run that
# failed early leaves them alone.
NodegraphAPI = None
Nodes2DAPI = None
Nodes3DAPI = None
PyUtilModule = None

log = logging.getLogger("Main")


class SystemModuleLoader(object):
    """Gives the sys module that is already there."""

    def load_module(self, fullname):
        return sys


class SystemModuleFinder(object):
    """Keeps sys from being loaded anew, which would lose sys.excepthook."""

    def find_module(self, fullname, path=None):
        if fullname == "sys" and path is None:
            return SystemModuleLoader()
        return None


def excepthook(exceptionType, exception, tb):
    """Logs an uncaught exception."""
    # This may run when the module's globals are gone already.
    import logging
    import os.path
    import traceback

    fileName = None
    lines = None
    if tb is not None:
        innermost = tb
        while innermost.tb_next is not None:
            innermost = innermost.tb_next
        fileName = innermost.tb_frame.f_code.co_filename
        if not fileName.startswith("<"):
            fileName = '"%s"' % os.path.basename(fileName)
        lines = traceback.format_exception(exceptionType, exception, tb)

    typeName = exceptionType.__name__
    if typeName:
        article = "An" if typeName[0].lower() in "aeio" else "A"
        message = "%s %s occurred" % (article, typeName)
    else:
        message = "An exception was raised"
    message += ": " if fileName is None else " in %s: " % fileName
    message += str(exception)
    if lines:
        message += "\n" + "".join(lines).strip()
    logging.exception(message)


def disableSpecificWarnings():
    for message in (r"object\.__new__\(\) takes no parameters",
                    r"The popen2 module is deprecated.*",
                    r"the sets module is deprecated.*"):
        warnings.filterwarnings(action="ignore", message=message, category=DeprecationWarning)


def makeTmpDirectory():
    """Creates the folder that TAVREL_TMPDIR names; the cleanup program removes it after the run."""
    key = "TAVREL_TMPDIR"
    path = Configuration.get(key)
    if path is None:
        return
    try:
        os.makedirs(path)
    except OSError as exception:
        if exception.errno != errno.EEXIST:
            log.error('%s: Error creating directory "%s": OSError: %s'
                      % (key, path, exception.strerror))
            sys.exit(1)
        if not os.path.isdir(path):
            log.error('%s: Path "%s" exists, but does not point to a directory.' % (key, path))
            sys.exit(1)
    except Exception as exception:
        log.error('%s: Unexpected error creating directory "%s": %s' % (key, path, str(exception)))
        sys.exit(1)


def initDefaultRenderer():
    """Settles DEFAULT_RENDERER: the configured one if it is valid, else "dl", else the first."""
    import RenderingAPI

    key = "DEFAULT_RENDERER"
    configured = Configuration.get(key) if Configuration.has(key) else None
    names = RenderingAPI.RenderPlugins.GetRendererPluginNames(includeViewer=False)
    if configured and configured in names:
        return

    if not configured:
        level = logging.INFO
        reason = "No Default Renderer name has been set."
    else:
        level = logging.WARNING
        reason = ('Specified Default Renderer "{}" is not the name of a registered renderer '
                  'plug-in.'.format(configured))

    if not names:
        Configuration.set(key, "")
        log.warning("There are no valid Renderer plug-ins available.")
        return
    if "dl" in names:
        fallback = "dl"
        log.log(level, '%s Using: "%s".', reason, fallback)
    else:
        fallback = names[0]
        log.log(level, '%s Using the first available plug-in found: "%s".', reason, fallback)
    Configuration.set(key, fallback)


def logIfVerbose(text, *arguments):
    """Logs an information that a quiet run leaves out."""
    if sys.tavrel_verbosityLevel >= 1:
        log.info(text, *arguments)


def initDebugging():
    if Configuration.get("TAVREL_RENDER_DEBUG") not in ("", "0"):
        log.info("Debugging the rendering process")
        Nodes2DAPI.SetRenderDebug(1)

    if Configuration.get("TAVREL_EVENT_DEBUG") not in ("", "0"):
        log.info("Debugging the event queue")
        import Utils
        Utils.EventModule.RegisterDebugEventHandler()

    if Configuration.has("TAVREL_RENDER_LOGFILE"):
        renderLogFile = Configuration.get("TAVREL_RENDER_LOGFILE")
        logIfVerbose('TAVREL_RENDER_LOGFILE set to "%s".', renderLogFile)
        Nodes2DAPI.SetRenderDebug(1)
        Nodes2DAPI.SetRenderLogFile(renderLogFile)


def initTileSize(machine):
    tileSize = machine.GetRenderTileSize(customLogger=log)
    if tileSize and len(tileSize) == 2:
        width, height = tileSize
        logIfVerbose("TAVREL_RENDER_TILE_SIZE set to %dx%d.", width, height)
        Nodes2DAPI.SetTileSize(width, height)
    else:
        width, height = Nodes2DAPI.GetTileSize()
        logIfVerbose("TAVREL_RENDER_TILE_SIZE defaulting to %dx%d.", width, height)


def initImageLimits(machine, isBatch):
    machineLogger = log if sys.tavrel_verbosityLevel >= 1 else None
    Nodes2DAPI.SetMaxImageMemory(
        int(machine.GetImageMemoryMB(isBatch, customLogger=machineLogger)))
    Nodes2DAPI.SetMaxDiskUsage(
        int(machine.GetImageDiskMemoryMB(isBatch, customLogger=machineLogger)))


def initSpeculativeCache(isBatch):
    if Configuration.has("TAVREL_SPEC_CACHE_ENABLED"):
        try:
            isEnabled = bool(int(Configuration.get("TAVREL_SPEC_CACHE_ENABLED")))
        except Exception:
            log.error("Could not parse TAVREL_SPEC_CACHE_ENABLED. Allow values: 0,1")
            isEnabled = False
        logIfVerbose("TAVREL_SPEC_CACHE_ENABLED set to %d.", isEnabled)
    else:
        isEnabled = not isBatch
        logIfVerbose("TAVREL_SPEC_CACHE_ENABLED defaulting to %d.", isEnabled)
    Nodes2DAPI.SetSpeculativeCacheEnabled(isEnabled)


def ProcessEnvironmentVariables():
    """Pushes what the configuration and the machine say into the application's subsystems."""
    global NodegraphAPI, Nodes2DAPI, Nodes3DAPI, PyUtilModule
    import NodegraphAPI
    import Nodes2DAPI
    import Nodes3DAPI
    import PyUtilModule
    import MachineInfo

    isBatch = Configuration.has("TAVREL_BATCH_MODE")
    initDebugging()
    if not Configuration.has("ARNOLD_RENDER_TERMINATION_SIGNAL"):
        Configuration.set("ARNOLD_RENDER_TERMINATION_SIGNAL", "SIGKILL")
    Nodes2DAPI.SetRenderThreads(MachineInfo.Tavrel.GetRenderThreadCount())
    Nodes3DAPI.SetRenderThreads(None)
    initTileSize(MachineInfo.Tavrel)
    initImageLimits(MachineInfo.Tavrel, isBatch)
    initSpeculativeCache(isBatch)
    initDefaultRenderer()


def initQt():
    qtPath = os.path.join(Configuration.get("TAVREL_ROOT"), "bin")
    if "QT_PLUGIN_PATH" in os.environ:
        qtPath = os.environ["QT_PLUGIN_PATH"] + os.pathsep + qtPath
    os.environ["QT_PLUGIN_PATH"] = qtPath


def initNoQt(options):
    import MainCommon

    ProcessEnvironmentVariables()
    MainCommon.ProcessOptions(options)


def initWithQt(options):
    import MainCommon

    # Before the application's modules are imported, which may load Qt.
    initQt()
    ProcessEnvironmentVariables()
    MainCommon.ProcessOptions(options)


def setRunMode(ownKey):
    Configuration.set(ownKey, "1")
    for key in ("TAVREL_BATCH_MODE", "TAVREL_SCRIPT_MODE", "TAVREL_SHELL_MODE", "TAVREL_UI_MODE"):
        if key != ownKey:
            Configuration.set(key, "")


def runMode(options, args):
    # A mode's module is imported only when its mode is chosen: a batch run never loads the UI.
    if options.get("batch"):
        setRunMode("TAVREL_BATCH_MODE")
        initNoQt(options)
        import MainBatch as mode
    elif options.get("script") is not None:
        setRunMode("TAVREL_SCRIPT_MODE")
        initWithQt(options)
        import MainScript as mode
    elif options.get("shell"):
        setRunMode("TAVREL_SHELL_MODE")
        initWithQt(options)
        import MainShell as mode
    else:
        setRunMode("TAVREL_UI_MODE")
        initWithQt(options)
        import MainUI as mode
    # An import's callback may have dropped a KeyboardInterrupt.
    sys.tavrel_checkInterrupt()
    mode.Main(options, args)


def cleanUp():
    if Nodes2DAPI is not None:
        for renderType in Nodes2DAPI.GetAllRenderTypes():
            Nodes2DAPI.CancelRender(renderType, True)
    if Nodes3DAPI is not None:
        Nodes3DAPI.CancelAllRenders()
    if Nodes2DAPI is not None:
        Nodes2DAPI.TerminateCancelledRenders()
    if NodegraphAPI is not None:
        NodegraphAPI.SetRootNode(None)


sys.excepthook = excepthook
sys.meta_path.append(SystemModuleFinder())


def __main():
    logging.captureWarnings(True)
    warnings.simplefilter("default")
    # Behind the general filter, so that these come first.
    disableSpecificWarnings()
    makeTmpDirectory()
    options, args = MainOptions.GetOptions()

    def dummy():
        pass

    # Has the interpreter set up its threads before a library of the application starts one.
    _thread.start_new_thread(dummy, ())
    if not sys.platform.startswith("win"):
        sys.setrecursionlimit(10000)

    try:
        runMode(options, args)
    finally:
        cleanUp()
    sys.exit(0)


if __name__ == "__main__":
    __main()
