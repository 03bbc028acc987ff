#!/bin/bash
# Slurm's Epilog: removes the folder that prolog.sh made, once every process of the job is gone.
base=/var/spool/tavrel-jobs
rm -rf --one-file-system "${base:?}/${SLURM_JOB_ID:?}"
