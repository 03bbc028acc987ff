"""Stands for the application: runs the statements that it is given as its first argument."""
import sys
exec(sys.argv[1])
