#!/bin/bash
# Slurm's TaskProlog: what it prints sets the variables of the job.
base=/var/spool/tavrel-jobs
echo "export TMPDIR=$base/$SLURM_JOB_ID"
echo "export TAVREL_KEEP_TMPDIR=1"
