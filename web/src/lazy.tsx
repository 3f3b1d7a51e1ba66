// Pages that few people look at come when they are first looked at.
import type { FunctionComponent } from 'preact'
import { useEffect, useState } from 'preact/hooks'
import { ApiError } from './api'
import { Failure, Spinner } from './ui'

export function lazy(load: () => Promise<FunctionComponent>): FunctionComponent {
  let loaded: FunctionComponent | null = null
  return () => {
    const [Page, setPage] = useState<FunctionComponent | null>(() => loaded)
    const [failure, setFailure] = useState<unknown>(null)
    const fetchIt = () => {
      setFailure(null)
      load().then(
        page => setPage(() => (loaded = page)),
        () => setFailure(new ApiError('network', 0, '')),
      )
    }
    useEffect(() => {
      if (!loaded) fetchIt()
    }, [])
    if (Page) return <Page />
    return failure ? <Failure failure={failure} onRetry={fetchIt} /> : <Spinner />
  }
}
