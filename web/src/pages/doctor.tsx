// What is wrong with a tunnel: the appliance looks step by step, and the list fills meanwhile.
import { useEffect, useState } from 'preact/hooks'
import { data } from '../api'
import { t } from '../texts'
import { Badge, Button, Dialog, Failure, Spinner, Table, type Tone } from '../ui'

const PAUSE = 700 // milliseconds between two looks at the steps

export interface Step {
  step: string
  result: 'ok' | 'warn' | 'fail' | 'skip'
  text: string
  cure: string
}
interface Run {
  done: boolean
  steps: Step[]
}

const TONES: Record<Step['result'], Tone> = { ok: 'good', warn: 'warn', fail: 'bad', skip: 'off' }

// The step that decides: the first that failed, else nothing.
export const culprit = (steps: readonly Step[]): Step | null =>
  steps.find(one => one.result === 'fail') ?? null

export function DoctorDialog({
  type,
  index,
  name,
  onClose,
}: {
  type: number
  index: number
  name: string
  onClose: () => void
}) {
  const [run, setRun] = useState<Run>({ done: false, steps: [] })
  const [failure, setFailure] = useState<unknown>(null)

  useEffect(() => {
    let alive = true
    const look = async () => {
      const { id } = await data<{ id: string }>('doctor/start', { type, index })
      for (let done = false; alive && !done; ) {
        await new Promise(wake => setTimeout(wake, PAUSE))
        const next = await data<Run>('doctor/get', { id })
        done = next.done
        if (alive) setRun(next)
      }
    }
    look().catch((reason: unknown) => alive && setFailure(reason))
    return () => {
      alive = false
    }
  }, [type, index])

  const found = culprit(run.steps)
  return (
    <Dialog title={t('doctor.title', { name })} onClose={onClose} wide>
      <Failure failure={failure} />
      {run.steps.length > 0 && (
        <Table
          label={t('doctor.title', { name })}
          heads={[t('doctor.step'), t('doctor.result'), t('doctor.found')]}
        >
          {run.steps.map(one => (
            <tr key={one.step}>
              <td>{one.step}</td>
              <td>
                <Badge tone={TONES[one.result]}>{t(`doctor.${one.result}`)}</Badge>
              </td>
              <td>
                <bdi>{one.text}</bdi>
                {one.cure && <bdi class="soft block">{one.cure}</bdi>}
              </td>
            </tr>
          ))}
        </Table>
      )}
      {!run.done && !failure && <Spinner label={t('doctor.looking')} />}
      {run.done && (
        <p role="status">
          {found ? t('doctor.culprit', { step: found.step }) : t('doctor.nothing')}
        </p>
      )}
      <footer class="row end">
        <Button onClick={onClose}>{t('close')}</Button>
      </footer>
    </Dialog>
  )
}
